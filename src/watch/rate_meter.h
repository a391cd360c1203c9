// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>

namespace korva {

/// Finds out from what is left how fast something comes just now: over the last fifteen seconds.
class RateMeter {
  public:
    using Time = std::chrono::steady_clock::time_point;

    /// `bytesLeft` is missing while nothing is transferred; when it has grown, something else is transferred.
    void note(Time now, std::optional<std::int64_t> bytesLeft);

    /// Missing until the notes span a second.
    std::optional<std::int64_t> bytesPerSecond() const;

  private:
    struct Note {
        Time when;
        std::int64_t bytesLeft;
    };

    std::deque<Note> notes_;
};

}  // namespace korva
