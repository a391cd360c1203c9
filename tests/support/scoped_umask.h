// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/stat.h>

namespace korva::test {

/// Sets the process umask and puts it back as it was.
class ScopedUmask {
  public:
    explicit ScopedUmask(mode_t mask) : before_(::umask(mask)) {}
    ScopedUmask(const ScopedUmask&) = delete;
    ScopedUmask& operator=(const ScopedUmask&) = delete;
    ~ScopedUmask() { ::umask(before_); }

  private:
    mode_t before_;
};

}  // namespace korva::test
