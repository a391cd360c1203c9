// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ostream>

namespace korva {

/// Bytes on their way into the log.
struct memchunk_log {
    const char* data;
    int size;
};

/// Writes the bytes raw and unescaped; nothing when there are none.
std::ostream& operator<<(std::ostream& stream, const memchunk_log& chunk);

}  // namespace korva
