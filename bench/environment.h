// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdlib>
#include <stdexcept>
#include <string>

/// The value of an environment variable; throws when it is not set.
inline std::string variable(const char* name) {
    const char* const value = std::getenv(name);
    if (value == nullptr) {
        throw std::runtime_error(std::string(name) + " is not set");
    }
    return value;
}
