// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <log4cpp/CategoryStream.hh>

namespace korva {

/// Bytes on their way into the log.
struct memchunk_log {
    const char* data;
    int size;
};

/// Writes the bytes raw and unescaped; nothing when there are none.
log4cpp::CategoryStream& operator<<(log4cpp::CategoryStream& stream, const memchunk_log& chunk);

}  // namespace korva
