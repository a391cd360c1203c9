// SPDX-License-Identifier: Apache-2.0
#include "commons/filesystem.h"

#include "commons/descriptor.h"
#include "commons/handle.h"
#include "commons/product_paths.h"
#include "commons/system_error.h"
#include "utils/ovn_conf.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <tuple>

namespace korva {
namespace {

constexpr const char* kSourceName = "./filesystem";

/// The name up to the six characters that make it unique.
std::string tempFileTemplate(const std::string& dir, const std::string& name) {
    std::string path = dir;
    if (path.empty()) {
        const char* configured = ovnConfGet("DUMP_TMP_D");
        path = configured != nullptr ? configured : files::getTmpDir();
    }
    if (!path.ends_with('/')) {
        path += '/';
    }
    return path + name + "XXXXXX";
}

std::string parentDirectory(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

void syncPath(const std::string& path, int flags) {
    int fd = -1;
    do {
        fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | flags);
    } while (fd == -1 && errno == EINTR);
    if (fd == -1) {
        const int error = errno;
        throwSystemError("Cannot open " + path, error);
    }
    syncDescriptor(Descriptor(fd).fd(), path);
}

}  // namespace

void make_dir(char* path, uid_t owner, gid_t group, mode_t mode) {
    struct stat status {};
    if (::stat(path, &status) == 0 || errno != ENOENT) {
        return;
    }
    char* slash = std::strrchr(path, '/');
    if (slash != nullptr && slash != path) {
        *slash = '\0';
        make_dir(path, owner, group, mode);
        *slash = '/';
    }
    if (::mkdir(path, mode) == 0) {
        // lchown: what stands here by now may be a link that somebody else put in place.
        std::ignore = ::lchown(path, owner, group);
    }
}

void make_dir(const std::string& path, uid_t owner, gid_t group, mode_t mode) {
    const Handle<char*> buffer(::strdup(path.c_str()));
    make_dir(buffer.get(), owner, group, mode);
}

bool check_input_file(const char* name, bool /*unused*/) {
    struct stat status {};
    return name != nullptr && *name != '\0' && ::stat(name, &status) == 0 && S_ISREG(status.st_mode);
}

std::string DVX_getTempFileName(const std::string& dir, const std::string& name) {
    const std::string pattern = tempFileTemplate(dir, name);
    std::string path = pattern;
    const int fd = ::mkstemp64(path.data());
    if (fd == -1) {
        const int error = errno;
        throw KORVA_EXC(CantCreateTempFile) % pattern % std::strerror(error);
    }
    ::close(fd);
    return path;
}

std::uint64_t getFreeSpace(const std::string& path) {
    struct statfs64 statistics {};
    if (::statfs64(path.c_str(), &statistics) != 0) {
        const int error = errno;
        throw KORVA_EXC(CantStatFS) % path % std::strerror(error);
    }
    return statistics.f_bavail * static_cast<std::uint64_t>(statistics.f_bsize);
}

void syncDescriptor(int fd, const std::string& name) {
    int result = 0;
    do {
        result = ::fsync(fd);
    } while (result == -1 && errno == EINTR);
    // EINVAL: the file system has no fsync for this, so there is nothing to wait for.
    if (result == -1 && errno != EINVAL) {
        const int error = errno;
        throwSystemError("Cannot flush " + name, error);
    }
}

void syncFile(const std::string& path) {
    // Others may be able to write in its directory: no link is followed, no FIFO's other end awaited.
    syncPath(path, O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
}

void syncDirectoryOf(const std::string& path) {
    syncPath(parentDirectory(path), O_DIRECTORY);
}

void syncFileAndDirectory(const std::string& path) {
    syncFile(path);
    syncDirectoryOf(path);
}

}  // namespace korva
