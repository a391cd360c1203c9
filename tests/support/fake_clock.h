// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ctime>

namespace korva::test {

/// What time(2) tells while it lives. For programs linked with fake_clock.cpp and --wrap=time. One at a time.
class FakeClock {
  public:
    FakeClock();
    FakeClock(const FakeClock&) = delete;
    FakeClock& operator=(const FakeClock&) = delete;
    ~FakeClock();

    std::time_t now = 1000000000;
};

}  // namespace korva::test
