// SPDX-License-Identifier: Apache-2.0
#include "commons/regular_file.h"

#include "commons/checksum.h"
#include "commons/system_error.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace korva {
namespace {

/// Gives the bytes of `fd` to `sink`, until that returns false; false with errno set when they cannot be
/// read.
template <typename Sink>
bool readAll(int fd, Sink sink) {
    std::array<char, 65536> buffer;
    for (;;) {
        const ssize_t size = ::read(fd, buffer.data(), buffer.size());
        if (size > 0) {
            if (!sink(buffer.data(), static_cast<std::size_t>(size))) {
                return true;
            }
        } else if (size == 0) {
            return true;
        } else if (errno != EINTR) {
            return false;
        }
    }
}

}  // namespace

Descriptor openDirectory(const std::string& path) {
    Descriptor directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.fd() < 0) {
        throwSystemError(path, errno);
    }
    return directory;
}

int openRegularFile(int directory, const std::string& name, int flags) {
    constexpr mode_t kReadableForAll = 0666;  // less the umask
    // Without O_NONBLOCK the opening of a FIFO waits for its other end; for a regular file it means nothing.
    const int fd = openat(directory, name.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                          kReadableForAll);
    if (fd < 0) {
        return -1;
    }
    struct stat status {};
    int error = 0;
    if (fstat(fd, &status) != 0) {
        error = errno;
    } else if (!S_ISREG(status.st_mode)) {
        error = S_ISDIR(status.st_mode) ? EISDIR : EOPNOTSUPP;
    }
    if (error == 0) {
        return fd;
    }
    ::close(fd);
    errno = error;
    return -1;
}

std::optional<FileSum> sumRegularFile(int directory, const std::string& name) {
    const Descriptor file(openRegularFile(directory, name, O_RDONLY));
    Md5 md5;
    std::int64_t size = 0;
    const bool whole = file.fd() >= 0 && readAll(file.fd(), [&](const char* data, std::size_t count) {
                           md5.update(data, count);
                           size += static_cast<std::int64_t>(count);
                           return true;
                       });
    return whole ? std::optional<FileSum>({md5.hexDigest(), size}) : std::nullopt;
}

void copyRegularFile(const std::string& path, std::ostream& to) {
    const Descriptor file(openRegularFile(AT_FDCWD, path, O_RDONLY));
    const bool whole = file.fd() >= 0 && readAll(file.fd(), [&](const char* data, std::size_t count) {
                           return static_cast<bool>(to.write(data, static_cast<std::streamsize>(count)));
                       });
    if (!whole) {
        throwSystemError(path, errno);
    }
}

}  // namespace korva
