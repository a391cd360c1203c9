// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/secret_mask.h"
#include "commons/stream_errors.h"
#include "ssh/io_channels.h"

#include <algorithm>
#include <string_view>

namespace korva {

class Ssh;

/// The most that log, counter and sink are handed at once, in bytes.
inline constexpr int kMaxPieceSize = 65536;

/// Hands `text` on in pieces of at most kMaxPieceSize: take(std::string_view), never with an empty one.
template <typename Take>
void forEachPiece(std::string_view text, Take take) {
    for (; !text.empty(); text.remove_prefix(std::min<std::size_t>(text.size(), kMaxPieceSize))) {
        take(text.substr(0, kMaxPieceSize));
    }
}

/// Copies `from` to its end into `to`. Throws StreamRead, StreamWrite, MigrationTerminatedException.
void pump(IOReadChannel& from, IOWriteChannel& to);

/// The same, logging each chunk once it is written, with the secrets of `ssh` hidden.
void pump_with_log(IOReadChannel& from, IOWriteChannel& to, Ssh& ssh);

/// Writes one chunk whole. Throws MigrationTerminatedException before anything else when the run was asked
/// to end, StreamWrite when the sink fails.
void pump_write(IOWriteChannel& to, const char* data, int size);

}  // namespace korva
