// SPDX-License-Identifier: Apache-2.0
#include "watch/progress.h"

#include "watch/quantities.h"

#include <algorithm>

namespace korva {
namespace {

std::string amount(const DumperStatus& status) {
    std::string text;
    if (status.files) {
        text += ", " + counted(*status.files, "file");
    }
    if (status.bytes) {
        text += ", " + formatBytes(*status.bytes);
    }
    return text;
}

std::string with(const std::string& activity, const std::string& preposition, const std::string& name) {
    return name.empty() ? activity : activity + " " + preposition + " " + name;
}

}  // namespace

std::optional<Share> shareOf(std::optional<std::int64_t> left, std::optional<std::int64_t> total) {
    if (!left || !total) {
        return std::nullopt;
    }
    return Share{*total - std::min(*left, *total), *total};
}

std::optional<std::chrono::seconds> timeLeft(const TransferStatus& transfer,
                                             std::optional<std::int64_t> rateNow) {
    constexpr std::int64_t kLongest = 100LL * 86400;  // seconds
    const std::int64_t rate = rateNow.value_or(transfer.speed.value_or(0));
    if (!transfer.sizeLeft || rate <= 0 || *transfer.sizeLeft / rate > kLongest) {
        return std::nullopt;
    }
    // Rounded without a sum, which could be too large.
    const bool isRoundedUp = *transfer.sizeLeft % rate >= rate - rate / 2;
    return std::chrono::seconds(*transfer.sizeLeft / rate + (isRoundedUp ? 1 : 0));
}

std::string activityOf(const RunStatus& status) {
    switch (status.state) {
        case RunStatus::State::kIdle:
            return "idle";
        case RunStatus::State::kSending:
            return with("sending", "to", status.host);
        case RunStatus::State::kWaiting:
            return with("waiting for the agent", "on", status.host);
        case RunStatus::State::kListing:
            return with("asking what there is to fetch", "from", status.host);
        case RunStatus::State::kFetching:
            return with("fetching content", "from", status.host);
        case RunStatus::State::kTranslating:
            return "translating the dump";
        case RunStatus::State::kDeploying:
            return with("deploying accounts and domains", "at", status.deployment.currentObject);
        case RunStatus::State::kUnknown:
            break;
    }
    return "in a state that is not known here";
}

std::string dumperText(const DumperStatus& status) {
    switch (status.state) {
        case DumperStatus::State::kDumping:
            return "dumping" + (status.current.empty() ? "" : " " + status.current) + amount(status);
        case DumperStatus::State::kFinished:
            return "finished" + (status.total ? ", " + counted(*status.total, "object") : "") +
                   amount(status);
        case DumperStatus::State::kFailed:
            return "failed" + (status.message.empty() ? "" : ": " + status.message);
        case DumperStatus::State::kOther:
            break;
    }
    return status.message;
}

std::string counted(std::int64_t count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

}  // namespace korva
