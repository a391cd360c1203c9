// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace korva {

/// A random identifier in the text form of a UUID (RFC 4122, version 4), drawn from rand().
/// The string is 37 characters long: its last one is a NUL, which text records keep.
std::string newUUID();

}  // namespace korva
