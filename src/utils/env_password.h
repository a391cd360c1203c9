// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace korva {

/// The password of the source host, from OVN_PASSWORD; empty when that is not set. The first call takes it
/// (at most 4095 bytes) and removes it from the environment, so that no child gets it, and from the memory
/// that /proc shows as our environment. The buffer is static.
const char* get_env_noncrypted_password();

/// Whether OVN_SUDO_PASSWORD exists; an empty one counts.
bool is_sudo_password_provided();

/// The value of OVN_SUDO_PASSWORD, empty when it is not set.
std::string get_sudo_password();

/// Removes OVN_SUDO_PASSWORD in the same way, once it has been read.
void forgetSudoPassword();

/// Takes both variables out of a child's environment, between fork and exec.
void dropPasswordsFromEnvironment();

}  // namespace korva
