// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/stat.h>

namespace korva {

/// Sets the process umask while it lives.
class UmaskScope {
  public:
    explicit UmaskScope(mode_t mask) : before_(::umask(mask)) {}
    UmaskScope(const UmaskScope&) = delete;
    UmaskScope& operator=(const UmaskScope&) = delete;
    ~UmaskScope() { ::umask(before_); }

  private:
    mode_t before_;
};

}  // namespace korva
