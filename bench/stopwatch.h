// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

/// Runs from its construction on, by a clock that nobody sets.
class Stopwatch {
  public:
    double milliseconds() const {
        return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - began_).count();
    }

  private:
    std::chrono::steady_clock::time_point began_ = std::chrono::steady_clock::now();
};
