// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace korva {

/// "512 B", "1.2 KiB", "340 MiB", rounded down.
std::string formatBytes(std::int64_t bytes);

/// What there is of a total, in the unit of the total: "0.4 of 1.2 GiB".
std::string formatBytesOf(std::int64_t bytes, std::int64_t total);

/// In at most two units: "42 s", "3 min 12 s", "2 h 5 min", "4 d 1 h".
std::string formatDuration(std::chrono::seconds duration);

/// Whole percent, rounded down, of a total that may be 0, which is all there then.
int percentOf(std::int64_t part, std::int64_t total);

}  // namespace korva
