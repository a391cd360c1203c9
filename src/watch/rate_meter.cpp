// SPDX-License-Identifier: Apache-2.0
#include "watch/rate_meter.h"

#include <limits>

namespace korva {

void RateMeter::note(Time now, std::optional<std::int64_t> bytesLeft) {
    constexpr std::chrono::seconds kSpan(15);
    if (!bytesLeft || (!notes_.empty() && *bytesLeft > notes_.back().bytesLeft)) {
        notes_.clear();
    }
    if (!bytesLeft) {
        return;
    }
    notes_.push_back({now, *bytesLeft});
    while (notes_.size() > 2 && notes_[1].when <= now - kSpan) {
        notes_.pop_front();
    }
}

std::optional<std::int64_t> RateMeter::bytesPerSecond() const {
    if (notes_.empty()) {
        return std::nullopt;
    }
    const std::chrono::duration<double> span = notes_.back().when - notes_.front().when;
    if (span < std::chrono::seconds(1)) {
        return std::nullopt;
    }
    constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
    const double rate =
        static_cast<double>(notes_.front().bytesLeft - notes_.back().bytesLeft) / span.count();
    // As a double kMost is one more than it is.
    return rate < static_cast<double>(kMost) ? static_cast<std::int64_t>(rate) : kMost;
}

}  // namespace korva
