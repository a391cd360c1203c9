// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/descriptor.h"

#include <string>

namespace korva {

/// Tells other runs that a file is being written, as long as it lives. The system ends it with the process.
/// It binds only those who ask for it, too.
class FileClaim {
  public:
    /// Makes an empty file when there is none; what is there stays as it is. Throws SystemError, and tells it
    /// in the log, when the file cannot be opened or is no regular file.
    explicit FileClaim(const std::string& path);

    /// False when the file is somebody else's: claimed, or replaced or removed just now.
    bool isHeld() const { return held_; }

  private:
    Descriptor file_;
    bool held_;
};

}  // namespace korva
