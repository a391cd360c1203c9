// SPDX-License-Identifier: Apache-2.0
#include "utils/write_all.h"

#include <unistd.h>

#include <cerrno>

namespace korva {

std::size_t writeAll(int fd, std::string_view bytes) {
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t size = ::write(fd, bytes.data() + written, bytes.size() - written);
        if (size > 0) {
            written += static_cast<std::size_t>(size);
        } else if (size == 0 || errno != EINTR) {
            break;
        }
    }
    return written;
}

}  // namespace korva
