// SPDX-License-Identifier: Apache-2.0
#include "utils/env_password.h"

#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace korva {
namespace {

constexpr const char* kPassword = "OVN_PASSWORD";
constexpr const char* kSudoPassword = "OVN_SUDO_PASSWORD";

/// Removes every definition of the variable, overwriting its value in place: unsetenv(3) alone would leave it
/// to be read in /proc/PID/environ.
void eraseVariable(const char* name) {
    const std::size_t nameLength = std::strlen(name);
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string_view definition(*entry);
        if (definition.size() > nameLength && definition.starts_with(name) && definition[nameLength] == '=') {
            ::explicit_bzero(*entry + nameLength + 1, definition.size() - nameLength - 1);
        }
    }
    ::unsetenv(name);
}

}  // namespace

const char* get_env_noncrypted_password() {
    static std::array<char, 4096> buffer{};  // its last byte stays 0
    static bool taken = false;
    if (!taken) {
        taken = true;
        if (const char* value = std::getenv(kPassword)) {
            std::strncpy(buffer.data(), value, buffer.size() - 1);
            eraseVariable(kPassword);
        }
    }
    return buffer.data();
}

bool is_sudo_password_provided() {
    return std::getenv(kSudoPassword) != nullptr;
}

std::string get_sudo_password() {
    const char* value = std::getenv(kSudoPassword);
    return value != nullptr ? value : "";
}

void forgetSudoPassword() {
    eraseVariable(kSudoPassword);
}

void dropPasswordsFromEnvironment() {
    ::unsetenv(kPassword);
    ::unsetenv(kSudoPassword);
}

}  // namespace korva
