// SPDX-License-Identifier: Apache-2.0
#include "ssh/remote_log.h"

namespace korva {

std::ostream& operator<<(std::ostream& stream, const memchunk_log& chunk) {
    if (chunk.size > 0) {
        stream.write(chunk.data, chunk.size);
    }
    return stream;
}

}  // namespace korva
