// SPDX-License-Identifier: Apache-2.0
#include "watch/line_report.h"

#include "watch/progress.h"
#include "watch/quantities.h"

#include <utility>

namespace korva {
namespace {

constexpr std::chrono::seconds kShortest(1);  // between two lines of progress

/// 0, then 10, 20, 40, … seconds.
std::chrono::seconds silenceStep(const Situation& situation, FileTime now) {
    if (situation.phase != Situation::Phase::kRunning && situation.phase != Situation::Phase::kBegun) {
        return std::chrono::seconds(0);
    }
    const auto silence = std::chrono::duration_cast<std::chrono::seconds>(now - situation.lastWord);
    std::chrono::seconds step = kLongSilence;
    while (step * 2 <= silence) {
        step *= 2;
    }
    return step <= silence ? step : std::chrono::seconds(0);
}

std::string percentText(const std::optional<Share>& share) {
    return share ? std::to_string(percentOf(share->done, share->total)) + " %" : "";
}

/// What moves on without being another state.
std::string progressOf(const Snapshot& snapshot, const Situation& situation) {
    std::string text;
    if (situation.phase != Situation::Phase::kRunning) {
        return text;
    }
    const TransferStatus& transfer = situation.status->transfer;
    text = percentText(shareOf(transfer.sizeLeft, transfer.sizeTotal)) + "|" +
           std::to_string(transfer.filesLeft.value_or(-1)) + "|" + transfer.currentFile + "|" +
           std::to_string(situation.status->deployment.completedDomains.value_or(-1)) + "|" +
           std::to_string(situation.status->deployment.completedAccounts.value_or(-1));
    if (situation.dumperIsCurrent && snapshot.dumper.content) {
        text.append("|").append(dumperText(*snapshot.dumper.content));
    }
    return text;
}

std::string transferText(const TransferStatus& transfer, const Moment& moment) {
    std::string text;
    if (const auto share = shareOf(transfer.sizeLeft, transfer.sizeTotal)) {
        text += ", " + percentText(share) + ", " + formatBytesOf(share->done, share->total);
    }
    if (const auto share = shareOf(transfer.filesLeft, transfer.filesTotal)) {
        text += ", " + std::to_string(share->done) + " of " + counted(share->total, "file");
    }
    if (const auto rate = moment.rate ? moment.rate : transfer.speed) {
        text += ", " + formatBytes(*rate) + "/s";
    }
    if (const auto left = timeLeft(transfer, moment.rate)) {
        text += ", " + formatDuration(*left) + " left";
    }
    return transfer.currentFile.empty() ? text : text + ", " + transfer.currentFile;
}

std::string deploymentText(const DeploymentStatus& deployment) {
    std::string text;
    const auto add = [&text](std::optional<std::int64_t> completed, std::optional<std::int64_t> total,
                             const char* noun) {
        if (completed && total) {
            text += ", " + std::to_string(*completed) + " of " + counted(*total, noun);
        }
    };
    add(deployment.completedAccounts, deployment.totalAccounts, "account");
    add(deployment.completedDomains, deployment.totalDomains, "domain");
    return text;
}

std::string messageText(const ResultMessage& message) {
    return message.code + (message.id.empty() ? "" : " [" + message.id + "]") + ": " + message.description;
}

std::vector<std::string> outcomeLines(const Document<Outcome>& document) {
    if (!document.content) {
        return {"the run has ended, but " + document.name + " " + document.problem};
    }
    const Outcome& outcome = *document.content;
    std::vector<std::string> lines = {std::string(outcome.success ? "success" : "failed") + " (" +
                                      document.name + ")"};
    for (const auto& chain : outcome.chains) {
        const char* relation = chain.front().isWarning ? "  warning: " : "  cause: ";
        for (const ResultMessage& message : chain) {
            lines.push_back(relation + messageText(message));
            relation = "  led to: ";
        }
    }
    if (outcome.leftOut > 0) {
        lines.push_back("  and " + counted(static_cast<std::int64_t>(outcome.leftOut), "more message"));
    }
    return lines;
}

std::string problems(const Snapshot& snapshot) {
    std::string text;
    const auto add = [&text](const auto& document) {
        if (!document.problem.empty()) {
            text += ", " + document.name + " " + document.problem;
        }
    };
    add(snapshot.status);
    add(snapshot.dumper);
    add(snapshot.result);
    add(snapshot.transferResult);
    return text;
}

}  // namespace

std::string LineReport::describe(const Snapshot& snapshot, const Situation& situation,
                                 const Moment& moment) const {
    switch (situation.phase) {
        case Situation::Phase::kNoDirectory:
            return "the directory " + snapshot.problem;
        case Situation::Phase::kNothing:
            return "no run has told anything yet";
        case Situation::Phase::kBegun:
            return "a run has begun, or is just ending";
        case Situation::Phase::kEnded:
            return "";
        case Situation::Phase::kRunning:
            break;
    }
    std::string text = activityOf(*situation.status);
    if (situation.status->state == RunStatus::State::kFetching) {
        text += transferText(situation.status->transfer, moment);
    } else if (situation.status->state == RunStatus::State::kDeploying) {
        text += deploymentText(situation.status->deployment);
    }
    if (situation.dumperIsCurrent && snapshot.dumper.content) {
        const DumperStatus& dumper = *snapshot.dumper.content;
        text += ": ";
        if (const auto share = shareOf(dumper.left, dumper.total)) {
            text += std::to_string(share->done) + " of " + counted(share->total, "object") + ", ";
        }
        text += dumperText(dumper);
    }
    return text;
}

std::vector<std::string> LineReport::update(const Snapshot& snapshot, const Moment& moment, Time now) {
    const Situation situation = judge(snapshot);
    if (isFirst_) {
        isFirst_ = false;
        firstResult_ = snapshot.result.changed;
        firstTransferResult_ = snapshot.transferResult.changed;
    }
    const std::chrono::seconds silence = silenceStep(situation, moment.now);
    std::string state = std::to_string(static_cast<int>(situation.phase)) + "|" +
                        std::to_string(silence.count()) + problems(snapshot) + snapshot.problem;
    if (situation.phase == Situation::Phase::kRunning) {
        state.append("|").append(std::to_string(static_cast<int>(situation.status->state)));
        state.append(situation.status->host);
    } else if (situation.phase == Situation::Phase::kEnded) {
        state.append("|").append(std::to_string(situation.lastWord.time_since_epoch().count()));
    }
    const std::string progress = progressOf(snapshot, situation);
    const bool isNewState = state != toldState_;
    // Between the end of a run and its result there are moments that look like the beginning of another one.
    if (isNewState && situation.phase == Situation::Phase::kBegun) {
        if (pendingState_ != state) {
            pendingState_ = state;
            pendingSince_ = now;
        }
        if (now - pendingSince_ < kShortest) {
            return {};
        }
    } else {
        pendingState_.clear();
    }
    if (!isNewState && (progress == toldProgress_ || now - toldAt_ < kShortest)) {
        return {};
    }
    toldState_ = std::move(state);
    toldProgress_ = progress;
    toldAt_ = now;

    std::vector<std::string> lines = situation.phase == Situation::Phase::kEnded
                                         ? outcomeLines(*situation.outcome)
                                         : std::vector{describe(snapshot, situation, moment)};
    if (silence > std::chrono::seconds(0)) {
        lines.front() += ", no update for " + std::to_string(silence.count()) + " s";
    }
    if (situation.phase != Situation::Phase::kEnded) {
        lines.front() += problems(snapshot);
    }
    for (std::string& line : lines) {
        line.insert(0, moment.clock + " ");
        line = toTerminalText(line, charset_);
    }
    return lines;
}

const Document<Outcome>* LineReport::newOutcome(const Snapshot& snapshot) const {
    const Situation situation = judge(snapshot);
    if (situation.phase != Situation::Phase::kEnded) {
        return nullptr;
    }
    const FileTime first =
        situation.outcome == &snapshot.transferResult ? firstTransferResult_ : firstResult_;
    return situation.outcome->changed != first ? situation.outcome : nullptr;
}

}  // namespace korva
