// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "watch/session_watch.h"
#include "watch/terminal_text.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace korva {

enum class Style { kPlain, kDim, kStrong, kTitle, kLabel, kGood, kWarning, kBad, kBar };

/// A text in one style; it holds nothing that moves the cursor.
struct Span {
    std::string text;  ///< went through toTerminalText()
    Style style = Style::kPlain;
};

using Row = std::vector<Span>;
using Frame = std::vector<Row>;

/// Of the terminal, in character cells.
struct FrameSize {
    int columns;
    int rows;
};

/// What is known beside the documents.
struct Moment {
    FileTime now;
    std::string clock;                   ///< the same for the user
    std::optional<std::int64_t> rate{};  ///< bytes per second of just now
};

/// The screen: at most `size.rows` rows of at most `size.columns` columns each. Where it does not suffice,
/// the less important goes first.
Frame renderScreen(const Snapshot& snapshot, const Moment& moment, FrameSize size, Charset charset);

/// The same without what belongs to a screen, in as many rows as it takes.
Frame renderReport(const Snapshot& snapshot, const Moment& moment, int columns, Charset charset);

std::string plainText(const Row& row);

}  // namespace korva
