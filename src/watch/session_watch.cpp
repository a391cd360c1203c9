// SPDX-License-Identifier: Apache-2.0
#include "watch/session_watch.h"

#include "commons/descriptor.h"
#include "commons/exception.h"
#include "commons/regular_file.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

namespace korva {
namespace {

constexpr std::size_t kLargest = std::size_t{4} << 20;  // bytes: a report of an agent may have many messages
constexpr const char* kTooLarge = "is larger than 4 MiB";

// Some file systems keep times far beyond what can be counted in nanoseconds. None before 1970 is told apart,
// so that the difference of two times can be counted as well.
FileTime timeOf(const timespec& time) {
    constexpr std::int64_t kLast =
        std::chrono::duration_cast<std::chrono::seconds>(FileTime::duration::max()).count() - 1;
    const std::int64_t second = std::clamp<std::int64_t>(time.tv_sec, 0, kLast);
    return FileTime(std::chrono::seconds(second) + std::chrono::nanoseconds(time.tv_nsec));
}

std::string errorText(int error) {
    return std::string("cannot be read: ") + std::strerror(error);
}

/// The reason why not, empty when `text` holds the whole file.
std::string readFile(int fd, std::string& text) {
    std::array<char, 65536> buffer;
    while (text.size() <= kLargest) {
        const ssize_t size = ::read(fd, buffer.data(), buffer.size());
        if (size == 0) {
            return text.empty() ? "is empty" : "";
        }
        if (size < 0 && errno != EINTR) {
            return errorText(errno);
        }
        text.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    }
    return kTooLarge;
}

// An agent's report may come as migration.result in the middle of a transfer, which tells of its last piece
// just before. What comes later, or after an older result was put aside, is the result of a later run.
bool mayBeReport(const Snapshot& snapshot) {
    constexpr std::chrono::seconds kMoment(2);
    const Document<RunStatus>& status = snapshot.status;
    return status.content && isTransfer(*status.content) &&
           snapshot.result.changed - status.changed < kMoment &&
           snapshot.resultPutAside.value_or(FileTime()) <= status.changed;
}

const Document<Outcome>* latestOutcome(const Snapshot& snapshot) {
    const Document<Outcome>* latest = nullptr;
    if (snapshot.result.exists && !mayBeReport(snapshot)) {
        latest = &snapshot.result;
    }
    if (snapshot.transferResult.exists &&
        (latest == nullptr || snapshot.transferResult.changed > latest->changed)) {
        latest = &snapshot.transferResult;
    }
    return latest;
}

/// When the latest run began whose result is not here yet, as far as the numbered results tell.
std::optional<FileTime> latestBeginning(const Snapshot& snapshot) {
    const std::optional<FileTime> none;
    return std::max(snapshot.result.exists ? none : snapshot.resultPutAside,
                    snapshot.transferResult.exists ? none : snapshot.transferResultPutAside);
}

}  // namespace

SessionWatch::SessionWatch(std::string directory) {
    snapshot_.directory = std::move(directory);
}

SessionWatch::Identity SessionWatch::identityOf(const struct stat& status) {
    return {status.st_dev, status.st_ino, status.st_size, timeOf(status.st_mtim), timeOf(status.st_ctim)};
}

template <typename T>
void SessionWatch::refresh(int directory, Document<T>& document, Identity& known,
                           T (*parse)(const std::string&)) {
    struct stat status {};
    // Asked first, so that not even the opening does anything to what is no regular file.
    if (fstatat(directory, document.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        const int error = errno;
        known = {};
        document = Document<T>(document.name);
        document.problem = error == ENOENT ? "" : errorText(error);
        return;
    }
    document.exists = true;
    document.changed = timeOf(status.st_mtim);
    const bool isRegular = S_ISREG(status.st_mode);
    if (isRegular && known == identityOf(status)) {
        return;
    }
    if constexpr (std::is_same_v<T, Outcome>) {
        document.content.reset();  // what an earlier run has left tells nothing about this one
    }
    if (!isRegular) {
        known = {};
        document.problem = "is no regular file";
        return;
    }
    const Descriptor file(openRegularFile(directory, document.name, O_RDONLY));
    if (file.fd() < 0 || fstat(file.fd(), &status) != 0) {
        known = {};
        document.problem = errorText(errno);
        return;
    }
    known = identityOf(status);
    document.changed = known.modified;
    std::string text;
    document.problem = readFile(file.fd(), text);
    if (!document.problem.empty()) {
        return;
    }
    try {
        document.content = parse(text);
    } catch (const ExTraceable&) {
        document.problem = "is not a whole document of its kind";
    }
}

// A result is put aside by giving it a number when the next run begins: that is when its entry changed last.
std::optional<FileTime> SessionWatch::lastPutAside(int directory, const std::string& name, unsigned& number) {
    struct stat status {};
    const auto exists = [&](unsigned each) {
        return fstatat(directory, (name + "." + std::to_string(each)).c_str(), &status,
                       AT_SYMLINK_NOFOLLOW) == 0;
    };
    if (number != 0 && !exists(number)) {
        number = 0;
    }
    while (exists(number + 1)) {
        ++number;
    }
    return number != 0 && exists(number) ? std::optional(timeOf(status.st_ctim)) : std::nullopt;
}

const Snapshot& SessionWatch::look() {
    const Descriptor directory(open(snapshot_.directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (directory.fd() < 0) {
        const std::string problem =
            errno == ENOENT ? "does not exist" : std::string("cannot be entered: ") + std::strerror(errno);
        *this = SessionWatch(snapshot_.directory);
        snapshot_.problem = problem;
        return snapshot_;
    }
    snapshot_.problem.clear();
    refresh(directory.fd(), snapshot_.status, status_, &parseRunStatus);
    refresh(directory.fd(), snapshot_.dumper, dumper_, &parseDumperStatus);
    refresh(directory.fd(), snapshot_.result, result_, &parseOutcome);
    refresh(directory.fd(), snapshot_.transferResult, transferResult_, &parseOutcome);
    snapshot_.resultPutAside = lastPutAside(directory.fd(), snapshot_.result.name, results_);
    snapshot_.transferResultPutAside =
        lastPutAside(directory.fd(), snapshot_.transferResult.name, transferResults_);
    return snapshot_;
}

Situation judge(const Snapshot& snapshot) {
    Situation situation;
    if (!snapshot.problem.empty()) {
        situation.phase = Situation::Phase::kNoDirectory;
        return situation;
    }
    const RunStatus* status = snapshot.status.content ? &*snapshot.status.content : nullptr;
    const bool active = status != nullptr && isActive(*status);
    const FileTime told = snapshot.status.exists ? snapshot.status.changed : FileTime();
    const std::optional<FileTime> begun = latestBeginning(snapshot);
    const Document<Outcome>* const outcome = latestOutcome(snapshot);
    // At its end a run tells that it is idle just before it leaves its result: both may have the same time.
    if (outcome != nullptr && begun <= outcome->changed &&
        (outcome->changed > told || (!active && outcome->changed == told))) {
        situation.phase = Situation::Phase::kEnded;
        situation.outcome = outcome;
        situation.lastWord = outcome->changed;
    } else if (active && begun <= told) {
        situation.phase = Situation::Phase::kRunning;
        situation.status = status;
        situation.dumperIsCurrent =
            snapshot.dumper.exists && !isTransfer(*status) && snapshot.dumper.changed >= told;
        situation.lastWord = situation.dumperIsCurrent ? snapshot.dumper.changed : told;
    } else if (begun || snapshot.status.exists) {
        situation.phase = Situation::Phase::kBegun;
        situation.lastWord = std::max(begun.value_or(told), told);
    }
    return situation;
}

}  // namespace korva
