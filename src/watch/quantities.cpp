// SPDX-License-Identifier: Apache-2.0
#include "watch/quantities.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace korva {
namespace {

constexpr std::array<const char*, 7> kUnits = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};

std::size_t unitFor(std::int64_t bytes) {
    std::size_t unit = 0;
    for (; bytes >= 1024; bytes /= 1024) {
        ++unit;
    }
    return unit;
}

bool hasTenths(std::int64_t bytes, std::size_t unit) {
    return unit > 0 && bytes >> (10 * unit) < 100;
}

// Rounded down: 99.96 of 100 is not 100 of it.
std::string inUnit(std::int64_t bytes, std::size_t unit, bool tenths) {
    const std::size_t shift = 10 * unit;
    std::string text = std::to_string(bytes >> shift);
    if (tenths) {
        const std::int64_t rest = bytes & ((std::int64_t{1} << shift) - 1);
        text.append(".").append(
            std::to_string(rest / 16 * 10 >> (shift - 4)));  // sixteenths, lest it overflow
    }
    return text;
}

}  // namespace

std::string formatBytes(std::int64_t bytes) {
    const std::size_t unit = unitFor(bytes);
    return inUnit(bytes, unit, hasTenths(bytes, unit)) + " " + kUnits[unit];
}

std::string formatBytesOf(std::int64_t bytes, std::int64_t total) {
    const std::size_t unit = unitFor(total);
    const bool tenths = hasTenths(total, unit);
    return inUnit(bytes, unit, tenths) + " of " + inUnit(total, unit, tenths) + " " + kUnits[unit];
}

std::string formatDuration(std::chrono::seconds duration) {
    const std::int64_t seconds = std::max<std::int64_t>(duration.count(), 0);
    const auto two = [](std::int64_t large, const char* unit, std::int64_t small, const char* smallUnit) {
        return std::to_string(large) + unit + std::to_string(small) + smallUnit;
    };
    if (seconds < 60) {
        return std::to_string(seconds) + " s";
    }
    if (seconds < 3600) {
        return two(seconds / 60, " min ", seconds % 60, " s");
    }
    if (seconds < 86400) {
        return two(seconds / 3600, " h ", seconds % 3600 / 60, " min");
    }
    return two(seconds / 86400, " d ", seconds % 86400 / 3600, " h");
}

int percentOf(std::int64_t part, std::int64_t total) {
    if (part >= total) {
        return 100;
    }
    return static_cast<int>(static_cast<long double>(part) * 100 / static_cast<long double>(total));
}

}  // namespace korva
