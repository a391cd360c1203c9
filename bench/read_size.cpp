// SPDX-License-Identifier: Apache-2.0
// Preloaded into the program, it writes into the file that READ_SIZE_FILE names the most bytes that one read
// of a channel has asked for.
#include <libssh2.h>

#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

struct Largest {
    ~Largest() {
        const char* const name = std::getenv("READ_SIZE_FILE");
        if (FILE* const file = name != nullptr ? std::fopen(name, "w") : nullptr) {
            std::fprintf(file, "%zu\n", size);
            std::fclose(file);
        }
    }
    std::size_t size = 0;
};

Largest largest;

}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t libssh2_channel_read_ex(LIBSSH2_CHANNEL* channel,
                                                                                  int stream, char* buffer,
                                                                                  std::size_t size) {
    using Read = ssize_t (*)(LIBSSH2_CHANNEL*, int, char*, std::size_t);
    static const auto real = reinterpret_cast<Read>(dlsym(RTLD_NEXT, "libssh2_channel_read_ex"));
    largest.size = std::max(largest.size, size);
    return real(channel, stream, buffer, size);
}
