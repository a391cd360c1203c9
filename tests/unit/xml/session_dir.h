// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/session.h"
#include "fakes/fake_accounts.h"
#include "support/temp_dir.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace korva::test {

/// An open session in a directory of its own, on a host whose panel account is the user of this process.
class SessionDir {
  public:
    explicit SessionDir(const std::string& name = "session") : session_(directory_ / name) {}

    /// The path of `name` in the session directory.
    std::string operator/(const std::string& name) const { return theSession->getDir() + "/" + name; }

    /// The names of the files in it, sorted.
    static std::vector<std::string> files() { return filesIn(theSession->getDir()); }

    static std::vector<std::string> filesIn(const std::string& directory) {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            if (!entry.is_directory()) {
                names.push_back(entry.path().filename());
            }
        }
        std::sort(names.begin(), names.end());
        return names;
    }

  private:
    TempDir directory_;
    FakePanelAccount account_{::geteuid(), ::getegid()};
    SessionLifetimeController session_;
};

}  // namespace korva::test
