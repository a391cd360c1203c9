// SPDX-License-Identifier: Apache-2.0
#include "commons/file_claim.h"

#include "commons/log_line.h"
#include "commons/regular_file.h"
#include "commons/system_error.h"

#include <log4cpp/Category.hh>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace korva {
namespace {

int openFile(const std::string& path) {
    const int fd = openRegularFile(AT_FDCWD, path, O_WRONLY | O_CREAT);
    if (fd < 0) {
        const int error = errno;
        errorLine(log4cpp::Category::getInstance("k.FileClaim"))
            << "Cannot write to " << path << ": " << std::strerror(error);
        throwSystemError(path, error);
    }
    return fd;
}

// A file system that knows no locks cannot tell of other runs either.
bool isLockedByAnother(int fd) {
    int result = 0;
    do {
        result = flock(fd, LOCK_EX | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    return result != 0 && errno == EWOULDBLOCK;
}

// Between opening and locking, its last writer may have given the file its final name.
bool stillHasTheName(int fd, const std::string& path) {
    struct stat opened {};
    struct stat named {};
    return fstat(fd, &opened) == 0 && lstat(path.c_str(), &named) == 0 && opened.st_dev == named.st_dev &&
           opened.st_ino == named.st_ino;
}

}  // namespace

FileClaim::FileClaim(const std::string& path)
    : file_(openFile(path)), held_(!isLockedByAnother(file_.fd()) && stillHasTheName(file_.fd(), path)) {}

}  // namespace korva
