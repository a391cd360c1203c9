// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace korva {

// What the documents of a session directory tell. Whoever wrote them may have been hostile or cut off:
// numbers that are none, or are negative, are missing; texts are cut to a bearable length, but not cleaned.

/// What migration.status tells of a transfer.
struct TransferStatus {
    std::optional<std::int64_t> speed;  ///< bytes per second, the mean of the run
    std::optional<std::int64_t> filesTotal;
    std::optional<std::int64_t> filesLeft;
    std::optional<std::int64_t> sizeTotal;  ///< bytes, as all sizes
    std::optional<std::int64_t> sizeLeft;
    std::string currentFile;
    std::optional<std::int64_t> currentSize;
    std::optional<std::int64_t> currentSizeLeft;
};

/// What migration.status tells of a deployment.
struct DeploymentStatus {
    std::optional<std::int64_t> totalAccounts;
    std::optional<std::int64_t> totalDomains;
    std::optional<std::int64_t> completedAccounts;
    std::optional<std::int64_t> completedDomains;
    std::string currentObject;
};

/// migration.status
struct RunStatus {
    enum class State {
        kUnknown,      ///< a state that nobody has heard of, or none
        kIdle,         ///< no run, or one that has just begun or ended
        kSending,      ///< something is sent to the source host
        kWaiting,      ///< the agent works
        kListing,      ///< the agent is asked what there is to fetch
        kFetching,     ///< content comes
        kTranslating,  ///< as the panel's other programs do
        kDeploying,    ///< the same
    };

    State state = State::kUnknown;
    std::string host;
    TransferStatus transfer;      ///< of kFetching; its speed also of kListing
    DeploymentStatus deployment;  ///< of kDeploying
};

bool isActive(const RunStatus& status);
/// Whether the run that tells this leaves its result in transfer.result, not in migration.result.
bool isTransfer(const RunStatus& status);

/// A message of a result document.
struct ResultMessage {
    std::string code;
    std::string id;
    bool isWarning = false;
    std::string description;
};

/// migration.result or transfer.result
struct Outcome {
    bool success = false;
    /// Each is an error with all that came of it: the innermost one, the cause, stands first.
    std::vector<std::vector<ResultMessage>> chains;
    std::size_t leftOut = 0;  ///< chains beyond those that are kept
};

/// dumping-status.xml. What another agent than the known ones writes is shown as it comes.
struct DumperStatus {
    enum class State { kDumping, kFinished, kFailed, kOther };

    State state = State::kOther;
    std::optional<std::int64_t> total;  ///< objects
    std::optional<std::int64_t> left;
    std::optional<std::int64_t> files;
    std::optional<std::int64_t> bytes;
    std::string current;
    std::string message;  ///< of kFailed; of kOther what can be made of the document
};

/// Each throws ExTraceable when the text is no document of that kind.
RunStatus parseRunStatus(const std::string& text);
Outcome parseOutcome(const std::string& text);
DumperStatus parseDumperStatus(const std::string& text);

}  // namespace korva
