// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "watch/session_documents.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace korva {

/// From here on the silence of a run is told.
constexpr std::chrono::seconds kLongSilence(10);

/// How much of something there is.
struct Share {
    std::int64_t done;
    std::int64_t total;
};

/// Missing unless both numbers are known. What is left is never taken for more than there is.
std::optional<Share> shareOf(std::optional<std::int64_t> left, std::optional<std::int64_t> total);

/// How long the rest takes at the rate of now or, while that is unknown, at the mean one. Missing when
/// nothing comes, and for what would take longer than anybody waits.
std::optional<std::chrono::seconds> timeLeft(const TransferStatus& transfer,
                                             std::optional<std::int64_t> rateNow);

/// "fetching content from source.example": what a run is doing, as the user is told.
std::string activityOf(const RunStatus& status);

/// "dumping shop.example, 812 files, 7.0 MiB": what the dumper tells, without the share of the objects.
std::string dumperText(const DumperStatus& status);

/// "1 file", "2 files".
std::string counted(std::int64_t count, const std::string& noun);

}  // namespace korva
