// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/incoming_file.h"

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace korva {

/// Who is to own what the panel reads.
struct PanelAccount {
    uid_t user;
    gid_t group;
};

/// The panel's account on this host; root where there is none.
PanelAccount panelAccount();

/// Creates a directory and its missing parents with mode 0755 for `owner`. As make_dir(), tells of no
/// failure.
void make_content_dir(const std::string& path, const PanelAccount& owner);

/// The directory below which content files are put by their listed paths. Nothing is ever written outside of
/// it: no ".." and no symbolic link below it is followed.
class ContentTarget {
  public:
    /// `owner` gets the directories that are made.
    ContentTarget(std::string directory, const PanelAccount& owner)
        : directory_(std::move(directory)), owner_(owner) {}

    /// Why a listed path is not to be fetched; nothing for a good one. Looks at what is there, creates
    /// nothing.
    std::optional<std::string> refusal(const std::string& listedPath) const;

    /// Makes the directories of a listed path and opens the last one. Throws SystemError, also where a
    /// symbolic link or a file stands in the way. What killed runs left there is removed.
    Descriptor enterDirectoryOf(const std::string& listedPath);

    /// Where a listed path goes, for messages.
    std::string localPath(const std::string& listedPath) const { return directory_ + "/" + listedPath; }
    const std::string& directory() const { return directory_; }

  private:
    bool isFileOfThisRun(const std::vector<std::string>& names) const;
    bool isSessionDirectory(const std::filesystem::path& relative) const;
    bool makeDirectoryAt(const Descriptor& parent, const std::string& name) const;

    std::string directory_;
    PanelAccount owner_;
    std::set<std::string> tidied_;  // listed directories without what killed runs left
};

/// The text behind the last "/".
std::string lastComponent(const std::string& path);

}  // namespace korva
