// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>

namespace korva::test {

/// Takes place before each call of flock(2) of a program that is linked with fake_flock.cpp and
/// -Wl,--wrap=flock; null for nothing.
extern std::function<void()> beforeFlock;

}  // namespace korva::test
