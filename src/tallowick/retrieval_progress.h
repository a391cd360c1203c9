// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ssh/ssh-transfer.h"
#include "xml/migration_status.h"

#include <cstdint>
#include <ctime>

namespace korva {

/// Keeps the status document in step with the content that arrives.
class FileRetrievalProgressUpdater : public Ssh::Counter {
  public:
    /// `status` outlives the updater. Time counts from now on.
    FileRetrievalProgressUpdater(MigrationStatus& status, std::int64_t totalSize, std::int32_t totalFiles);

    /// The next file begins; `size` in bytes.
    void startFile(std::int64_t size) { currentFileSizeLeft_ = size; }
    /// A file is done; saves the document.
    void finishFile();
    /// `bytes` more have arrived; saves the document.
    void operator()(int bytes) override;

  private:
    std::int64_t speed() const;

    MigrationStatus& status_;
    std::time_t startTime_;
    std::int64_t bytesDone_ = 0;
    std::int64_t sizeLeft_;
    std::int32_t filesLeft_;
    std::int64_t currentFileSizeLeft_ = 0;
};

}  // namespace korva
