// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "watch/session_documents.h"

#include <sys/stat.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>

namespace korva {

/// A moment by the clock of files.
using FileTime = std::chrono::sys_time<std::chrono::nanoseconds>;

/// A document of the session directory as it was seen last.
template <typename T>
struct Document {
    explicit Document(std::string fileName) : name(std::move(fileName)) {}

    std::string name;
    bool exists = false;
    /// The last content that could be read since the file appeared; what is there now may be worse. Of a
    /// result that of the very file that is there now.
    std::optional<T> content;
    std::string problem;  ///< with what is there now; empty when there is none
    FileTime changed{};   ///< when what is there now was written
};

/// What was seen of a session directory at one moment.
struct Snapshot {
    std::string directory;  ///< as the user named it
    std::string problem;    ///< with the directory itself
    Document<RunStatus> status{"migration.status"};
    Document<DumperStatus> dumper{"dumping-status.xml"};
    Document<Outcome> result{"migration.result"};
    Document<Outcome> transferResult{"transfer.result"};
    /// When the latest result of that name was put aside under a number: a run began that leaves another.
    std::optional<FileTime> resultPutAside;
    std::optional<FileTime> transferResultPutAside;
};

/// Looks into a session directory. Nothing there is changed; only regular files are opened, whatever the
/// names lead to, and of each no more is read than a document of its kind may need.
class SessionWatch {
  public:
    explicit SessionWatch(std::string directory);

    /// What there is now. Files that are the same as before are not read again.
    const Snapshot& look();

  private:
    /// By which a file is known to be the same.
    struct Identity {
        dev_t device = 0;
        ino_t inode = 0;
        off_t size = 0;
        FileTime modified{};
        FileTime changed{};

        bool operator==(const Identity&) const = default;
    };

    static Identity identityOf(const struct stat& status);
    template <typename T>
    void refresh(int directory, Document<T>& document, Identity& known, T (*parse)(const std::string&));
    static std::optional<FileTime> lastPutAside(int directory, const std::string& name, unsigned& number);

    Snapshot snapshot_;
    Identity status_;
    Identity dumper_;
    Identity result_;
    Identity transferResult_;
    unsigned results_ = 0;  // the number of the latest that was put aside
    unsigned transferResults_ = 0;
};

/// What a snapshot means. The pointers lead into it.
struct Situation {
    enum class Phase {
        kNoDirectory,
        kNothing,  ///< no run has told anything
        kBegun,    ///< a run has told no more than that it begins or is ending, or was killed then
        kRunning,
        kEnded,
    };

    Phase phase = Phase::kNothing;
    const RunStatus* status = nullptr;           ///< of kRunning
    const Document<Outcome>* outcome = nullptr;  ///< of kEnded
    /// Of kRunning: whether what the dumper says is about this run, not about an earlier one.
    bool dumperIsCurrent = false;
    /// When something was heard of the run last: of kRunning, kBegun and kEnded.
    FileTime lastWord{};
};

/// The newest document tells. Several runs may have left theirs, one after another, each as far as it got.
Situation judge(const Snapshot& snapshot);

}  // namespace korva
