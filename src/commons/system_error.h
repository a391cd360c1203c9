// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>

namespace korva {

/// A failed system call: a message and an errno value.
class SystemError : public std::runtime_error {
  public:
    /// A `code` of 0 takes the present errno.
    SystemError(const std::string& message, int code);

    /// "message: strerror text", or the strerror text alone when the message is empty.
    const char* what() const noexcept override;
    int code() const { return code_; }

  private:
    std::string message_;
    int code_;
    mutable std::string text_;
};

/// A SystemError of one errno value, so that callers can catch exactly that.
template <int N>
class ExSystemError : public SystemError {
  public:
    explicit ExSystemError(const std::string& message) : SystemError(message, N) {
        static_assert(N == EPERM || N == ENOENT || N == EINTR || N == ECHILD || N == EAGAIN);
    }
};

/// Throws `ExSystemError<code>` for EPERM, ENOENT, EINTR, EAGAIN and ECHILD, else a SystemError.
[[noreturn]] void throwSystemError(const std::string& message, int code);

}  // namespace korva
