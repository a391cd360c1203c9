// SPDX-License-Identifier: Apache-2.0
#include "commons/incoming_file.h"

#include "commons/regular_file.h"
#include "commons/stream_errors.h"
#include "commons/system_error.h"
#include "commons/umask_scope.h"
#include "commons/uuid.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <tuple>
#include <utility>

namespace korva {
namespace {

constexpr const char* kSourceName = "./incoming_file";

constexpr mode_t kPublicUmask = 022;

// Short, since the final name may be as long as names can be.
std::string newTemporaryName() {
    return ".incoming-" + std::to_string(getpid()) + "-" + newUUID().substr(0, 36);
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

std::streamsize IncomingFile::Buffer::xsputn(const char* data, std::streamsize size) {
    const std::streamsize written = DescriptorBuffer::xsputn(data, size);
    size_ += written;
    md5_.update(data, static_cast<std::size_t>(written));
    return written;
}

IncomingFile::IncomingFile(const Descriptor& directory, std::string finalName)
    : directory_(directory),
      finalName_(std::move(finalName)),
      temporaryName_(newTemporaryName()),
      stream_(nullptr) {
    requireRegularFileOrNothing(directory_, finalName_);
    const UmaskScope umask(kPublicUmask);
    buffer_ = std::make_unique<Buffer>(
        openRegularFile(directory_.fd(), temporaryName_, O_WRONLY | O_CREAT | O_EXCL));
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

void IncomingFile::install() {
    if (renameat(directory_.fd(), temporaryName_.c_str(), directory_.fd(), finalName_.c_str()) != 0) {
        throwSystemError("rename to " + finalName_, errno);
    }
    temporaryName_.clear();
}

}  // namespace korva
