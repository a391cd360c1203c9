// SPDX-License-Identifier: Apache-2.0
#include "watch/quantities.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>

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

std::string inUnit(std::int64_t bytes, std::size_t unit) {
    if (unit == 0) {
        return std::to_string(bytes);
    }
    const double value = static_cast<double>(bytes) / static_cast<double>(std::int64_t{1} << (10 * unit));
    std::array<char, 32> text;
    // snprintf would round up what is not complete: 99.96 of 100 is not 100.0 of it.
    const double tenths = static_cast<double>(static_cast<std::int64_t>(value * 10)) / 10;
    std::snprintf(text.data(), text.size(), value < 100 ? "%.1f" : "%.0f", value < 100 ? tenths : value);
    return text.data();
}

}  // namespace

std::string formatBytes(std::int64_t bytes) {
    const std::size_t unit = unitFor(bytes);
    return inUnit(bytes, unit) + " " + kUnits[unit];
}

std::string formatBytesOf(std::int64_t bytes, std::int64_t total) {
    const std::size_t unit = unitFor(total);
    return inUnit(bytes, unit) + " of " + inUnit(total, unit) + " " + kUnits[unit];
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
