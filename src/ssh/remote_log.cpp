// SPDX-License-Identifier: Apache-2.0
#include "ssh/remote_log.h"

#include <string>

namespace korva {

log4cpp::CategoryStream& operator<<(log4cpp::CategoryStream& stream, const memchunk_log& chunk) {
    if (chunk.size > 0) {
        stream << std::string(chunk.data, static_cast<std::size_t>(chunk.size));
    }
    return stream;
}

}  // namespace korva
