// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "watch/frame.h"

#include <chrono>
#include <string>
#include <vector>

namespace korva {

/// Follows a session in plain lines, for output that is no terminal: one for each change. What only moves on
/// a little is told at most once a second, and silence of a run each time it has lasted twice as long.
class LineReport {
  public:
    using Time = std::chrono::steady_clock::time_point;

    explicit LineReport(Charset charset) : charset_(charset) {}

    /// The lines that are to be added now, without line ends.
    std::vector<std::string> update(const Snapshot& snapshot, const Moment& moment, Time now);

    /// The outcome of a run that has ended since the first update.
    const Document<Outcome>* newOutcome(const Snapshot& snapshot) const;

  private:
    std::string describe(const Snapshot& snapshot, const Situation& situation, const Moment& moment) const;

    Charset charset_;
    bool isFirst_ = true;
    FileTime firstResult_{};  // of what there was at the first update
    FileTime firstTransferResult_{};
    std::string toldState_;
    std::string toldProgress_;
    std::string pendingState_;
    Time pendingSince_{};
    Time toldAt_{};
};

}  // namespace korva
