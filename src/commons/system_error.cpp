// SPDX-License-Identifier: Apache-2.0
#include "commons/system_error.h"

#include <cstring>

namespace korva {

SystemError::SystemError(const std::string& message, int code)
    : std::runtime_error(message), message_(message), code_(code != 0 ? code : errno) {}

const char* SystemError::what() const noexcept {
    if (!text_.empty()) {
        return text_.c_str();
    }
    try {
        text_ = message_.empty() ? std::strerror(code_) : message_ + ": " + std::strerror(code_);
        return text_.c_str();
    } catch (...) {  // out of memory: the bare message is better than nothing
        return std::runtime_error::what();
    }
}

void throwSystemError(const std::string& message, int code) {
    switch (code) {
        case EPERM:
            throw ExSystemError<EPERM>(message);
        case ENOENT:
            throw ExSystemError<ENOENT>(message);
        case EINTR:
            throw ExSystemError<EINTR>(message);
        case EAGAIN:
            throw ExSystemError<EAGAIN>(message);
        case ECHILD:
            throw ExSystemError<ECHILD>(message);
        default:
            throw SystemError(message, code);
    }
}

}  // namespace korva
