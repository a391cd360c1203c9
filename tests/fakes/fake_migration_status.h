// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace korva::test {

/// Stands in for the status documents that createMigrationStatusFile() makes (link seam). One at a time.
class FakeMigrationStatus {
  public:
    FakeMigrationStatus();
    FakeMigrationStatus(const FakeMigrationStatus&) = delete;
    FakeMigrationStatus& operator=(const FakeMigrationStatus&) = delete;
    ~FakeMigrationStatus();

    /// The saves that fail with CantRenameFile, counted from 1.
    std::set<int> failingSaves;
    /// What was done with all documents, "save" among it; "destroyed" when one has ended.
    std::vector<std::string> calls;
    /// Takes place when a document ends.
    std::function<void()> onDestroyed = [] {};

    // For the documents.
    void save();

  private:
    int saves_ = 0;
};

}  // namespace korva::test
