// SPDX-License-Identifier: Apache-2.0
#include "ssh/pump.h"

#include "commons/termination.h"
#include "ssh/ssh-transfer.h"

#include <array>

namespace korva {
namespace {

constexpr const char* kSourceName = "./ssh-transfer";

// Two of the largest packets that libssh2 makes of input (32700 bytes): whole 65536 would leave a third one
// of 136 bytes to every chunk.
constexpr unsigned kInputPieceSize = 65400;
static_assert(kInputPieceSize <= kMaxPieceSize);

template <typename Written>
void pumpChunks(IOReadChannel& from, IOWriteChannel& to, Written written) {
    std::array<char, kMaxPieceSize> buffer;
    for (;;) {
        const int size = from.read(buffer.data(), kInputPieceSize);
        if (size == 0) {
            return;
        }
        if (size < 0) {
            throw KORVA_EXC(StreamRead);
        }
        pump_write(to, buffer.data(), size);
        written(buffer.data(), size);
    }
}

}  // namespace

void pump(IOReadChannel& from, IOWriteChannel& to) {
    pumpChunks(from, to, [](const char*, int) {});
}

void pump_with_log(IOReadChannel& from, IOWriteChannel& to, Ssh& ssh) {
    SecretMaskStream mask(ssh.secrets());
    const auto log = [](const std::string& text) {
        forEachPiece(
            text, [](std::string_view piece) { Ssh::logPump(piece.data(), static_cast<int>(piece.size())); });
    };
    pumpChunks(from, to, [&](const char* data, int size) {
        log(mask.push(std::string_view(data, static_cast<std::size_t>(size))));
    });
    log(mask.finish());
}

void pump_write(IOWriteChannel& to, const char* data, int size) {
    checkProgramTerminated();
    while (size > 0) {
        const int written = to.write(data, static_cast<unsigned>(size));
        if (written < 0) {
            throw KORVA_EXC(StreamWrite);
        }
        data += written;
        size -= written;
    }
}

}  // namespace korva
