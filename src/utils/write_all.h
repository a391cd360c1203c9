// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string_view>

namespace korva {

/// Writes `bytes` to a descriptor, interrupted or not. Returns how many were written: when not all, errno
/// tells why. Safe in a forked child.
std::size_t writeAll(int fd, std::string_view bytes);

}  // namespace korva
