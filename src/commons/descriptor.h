// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace korva {

/// Owns a file descriptor; negative for none.
class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (fd_ >= 0) {
            close();
        }
    }

    int fd() const { return fd_; }
    /// False with errno set when there was nothing to close, or the system reports a late failure to write.
    /// An interruption is none: the descriptor is gone then, too.
    bool close() { return ::close(std::exchange(fd_, -1)) == 0 || errno == EINTR; }

  private:
    int fd_;
};

}  // namespace korva
