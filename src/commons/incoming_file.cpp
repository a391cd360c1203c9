// SPDX-License-Identifier: Apache-2.0
#include "commons/incoming_file.h"

#include "commons/filesystem.h"
#include "commons/handle.h"
#include "commons/regular_file.h"
#include "commons/stream_errors.h"
#include "commons/system_error.h"
#include "commons/umask_scope.h"
#include "commons/uuid.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <tuple>
#include <utility>
#include <vector>

namespace korva {
namespace {

constexpr const char* kSourceName = "./incoming_file";

constexpr mode_t kPrivateUmask = 077;
constexpr mode_t kPrivate = 0600;
constexpr mode_t kReadableForAll = 0644;
constexpr std::string_view kTemporaryPrefix = ".incoming-";
constexpr std::size_t kUuidLength = 36;

// Short, since the final name may be as long as names can be.
std::string newTemporaryName() {
    return std::string(kTemporaryPrefix) + std::to_string(getpid()) + "-" + newUUID().substr(0, kUuidLength);
}

bool isUuid(std::string_view text) {
    constexpr std::string_view kShape = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
    return std::equal(text.begin(), text.end(), kShape.begin(), kShape.end(), [](char c, char shape) {
        return shape == '-' ? c == '-' : std::isxdigit(static_cast<unsigned char>(c)) != 0;
    });
}

int lock(int fd, int operation) {
    int result = 0;
    do {
        result = flock(fd, operation);
    } while (result != 0 && errno == EINTR);
    return result;
}

// A file that is being received is locked. Before it is, another run may take it for an abandoned one.
bool isTakenByAnother(int fd) {
    if (lock(fd, LOCK_EX | LOCK_NB) != 0) {
        return errno == EWOULDBLOCK;  // a file system without locks is no reason to fail
    }
    struct stat status {};
    return fstat(fd, &status) == 0 && status.st_nlink == 0;
}

// A file system without modes has given it another one, and may refuse to change that.
bool makeReadableForAll(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 &&
           ((status.st_mode & ALLPERMS) != kPrivate || fchmod(fd, kReadableForAll) == 0);
}

/// A descriptor, or -1 with errno set: EWOULDBLOCK when another run has taken the file.
int createLocked(int directory, const std::string& name) {
    const int fd = openRegularFile(directory, name, O_WRONLY | O_CREAT | O_EXCL);
    if (fd < 0) {
        return -1;
    }
    int error = EWOULDBLOCK;
    if (!isTakenByAnother(fd)) {
        error = makeReadableForAll(fd) ? 0 : errno;
    }
    if (error == 0) {
        return fd;
    }
    std::ignore = unlinkat(directory, name.c_str(), 0);
    ::close(fd);
    errno = error;
    return -1;
}

/// The same under a new name, which `name` gets. Until it is locked nobody else can open the file: whoever
/// reads a file may lock it, and keep it so for ever.
int createUnderNewName(int directory, std::string& name) {
    constexpr int kMostAttempts = 100;
    const UmaskScope umask(kPrivateUmask);
    int fd = -1;
    int attempts = 0;
    do {
        name = newTemporaryName();
        fd = createLocked(directory, name);
    } while (fd < 0 && errno == EWOULDBLOCK && ++attempts < kMostAttempts);
    return fd;
}

void removeIfAbandoned(const Descriptor& directory, const std::string& name) {
    const Descriptor file(openRegularFile(directory.fd(), name, O_RDONLY));
    if (file.fd() >= 0 && lock(file.fd(), LOCK_EX | LOCK_NB) == 0) {
        std::ignore = unlinkat(directory.fd(), name.c_str(), 0);  // a later run may do better
    }
}

std::vector<std::string> temporaryNamesIn(const Descriptor& directory) {
    std::vector<std::string> names;
    const int fd = openat(directory.fd(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return names;
    }
    DIR* const opened = fdopendir(fd);
    if (opened == nullptr) {
        ::close(fd);
        return names;
    }
    const Handle<DIR*, &closedir> listing(opened);
    while (const dirent* entry = readdir(listing.get())) {
        if (IncomingFile::isTemporaryName(entry->d_name)) {
            names.emplace_back(entry->d_name);
        }
    }
    return names;
}

// Renaming would put the file in the place of a link or FIFO without a word.
void requireRegularFileOrNothing(const Descriptor& directory, const std::string& name) {
    struct stat status {};
    if (fstatat(directory.fd(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno != ENOENT) {
            throwSystemError(name, errno);
        }
    } else if (S_ISDIR(status.st_mode)) {
        throwSystemError(name, EISDIR);
    } else if (!S_ISREG(status.st_mode)) {
        throwSystemError(name + " is not a regular file", S_ISLNK(status.st_mode) ? ELOOP : EEXIST);
    }
}

}  // namespace

IncomingFile::Buffer::Buffer(int fd, std::string name, Sum sum) : DescriptorBuffer(fd, std::move(name)) {
    if (sum == Sum::kMd5) {
        md5_.emplace();
    }
}

std::streamsize IncomingFile::Buffer::xsputn(const char* data, std::streamsize size) {
    const std::streamsize written = DescriptorBuffer::xsputn(data, size);
    size_ += written;
    if (md5_) {
        md5_->update(data, static_cast<std::size_t>(written));
    }
    return written;
}

IncomingFile::IncomingFile(const Descriptor& directory, std::string finalName, Sum sum)
    : directory_(directory), finalName_(std::move(finalName)), lock_(-1), stream_(nullptr) {
    requireRegularFileOrNothing(directory_, finalName_);
    const int fd = createUnderNewName(directory_.fd(), temporaryName_);
    buffer_ = std::make_unique<Buffer>(fd, temporaryName_, sum);
    lock_ = Descriptor(fcntl(buffer_->fd(), F_DUPFD_CLOEXEC, 0));
    stream_.rdbuf(buffer_.get());
    if (buffer_->fd() < 0) {
        temporaryName_.clear();
        stream_.setstate(std::ios::failbit);
    }
}

IncomingFile::~IncomingFile() {
    if (!temporaryName_.empty()) {
        std::ignore = unlinkat(directory_.fd(), temporaryName_.c_str(), 0);  // nothing of it is of use
    }
}

void IncomingFile::close() {
    if (!buffer_->close() || !stream_) {
        throw KORVA_EXC(StreamWrite);
    }
}

std::string IncomingFile::failure() const {
    return std::strerror(buffer_->error());
}

void IncomingFile::install() {
    if (renameat(directory_.fd(), temporaryName_.c_str(), directory_.fd(), finalName_.c_str()) != 0) {
        throwSystemError("rename to " + finalName_, errno);
    }
    temporaryName_.clear();
}

void IncomingFile::installFlushed() {
    // Before the rename, or a power failure could leave an empty file under the name.
    syncDescriptor(lock_.fd(), temporaryName_);
    install();
    syncDescriptor(directory_.fd(), "the directory of " + finalName_);
}

bool IncomingFile::isTemporaryName(std::string_view name) {
    if (!name.starts_with(kTemporaryPrefix)) {
        return false;
    }
    name.remove_prefix(kTemporaryPrefix.size());
    const std::size_t digits = name.find_first_not_of("0123456789");
    return digits != std::string_view::npos && digits > 0 && name[digits] == '-' &&
           isUuid(name.substr(digits + 1));
}

void IncomingFile::removeAbandoned(const Descriptor& directory) {
    for (const std::string& name : temporaryNamesIn(directory)) {
        removeIfAbandoned(directory, name);
    }
}

}  // namespace korva
