// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <unistd.h>

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
    ~Descriptor() { close(); }

    int fd() const { return fd_; }
    /// False when there was nothing to close, or the system reports a late failure to write.
    bool close() { return fd_ >= 0 && ::close(std::exchange(fd_, -1)) == 0; }

  private:
    int fd_;
};

}  // namespace korva
