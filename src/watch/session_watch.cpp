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

const Document<Outcome>* newest(const Document<Outcome>& one, const Document<Outcome>& other) {
    if (!one.exists || (other.exists && other.changed > one.changed)) {
        return other.exists ? &other : nullptr;
    }
    return &one;
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
    if (!S_ISREG(status.st_mode)) {
        known = {};
        document.problem = "is no regular file";
        return;
    }
    if (known == identityOf(status)) {
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
void SessionWatch::findPutAside(int directory, const std::string& name, PutAside& latest) {
    struct stat status {};
    const auto exists = [&](unsigned number) {
        return fstatat(directory, (name + "." + std::to_string(number)).c_str(), &status,
                       AT_SYMLINK_NOFOLLOW) == 0;
    };
    if (latest.number != 0 && !exists(latest.number)) {
        latest = {};
    }
    while (exists(latest.number + 1)) {
        ++latest.number;
    }
    if (latest.number != 0 && exists(latest.number)) {
        latest.when = timeOf(status.st_ctim);
    }
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
    findPutAside(directory.fd(), snapshot_.result.name, results_);
    findPutAside(directory.fd(), snapshot_.transferResult.name, transferResults_);
    snapshot_.begun.reset();
    if (!snapshot_.result.exists && results_.number != 0) {
        snapshot_.begun = results_.when;
    }
    if (!snapshot_.transferResult.exists && transferResults_.number != 0) {
        snapshot_.begun = std::max(snapshot_.begun.value_or(FileTime()), transferResults_.when);
    }
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
    if (active) {
        // An agent's report may come as migration.result in the middle of a transfer.
        const Document<Outcome>& outcome = isTransfer(*status) ? snapshot.transferResult : snapshot.result;
        situation.outcome = outcome.exists && outcome.changed > snapshot.status.changed ? &outcome : nullptr;
    } else {
        situation.outcome = newest(snapshot.result, snapshot.transferResult);
    }
    if (situation.outcome != nullptr &&
        (active || !snapshot.begun || *snapshot.begun <= situation.outcome->changed)) {
        situation.phase = Situation::Phase::kEnded;
        situation.lastWord = situation.outcome->changed;
        return situation;
    }
    situation.outcome = nullptr;
    if (active) {
        situation.phase = Situation::Phase::kRunning;
        situation.status = status;
        situation.dumperIsCurrent = snapshot.dumper.exists && !isTransfer(*status) &&
                                    snapshot.dumper.changed >= snapshot.status.changed;
        situation.lastWord = situation.dumperIsCurrent ? snapshot.dumper.changed : snapshot.status.changed;
    } else if (snapshot.begun || snapshot.status.exists) {
        situation.phase = Situation::Phase::kBegun;
        situation.lastWord = std::max(snapshot.begun.value_or(FileTime()), snapshot.status.changed);
    }
    return situation;
}

}  // namespace korva
