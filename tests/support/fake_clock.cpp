// SPDX-License-Identifier: Apache-2.0
#include "support/fake_clock.h"

namespace {

korva::test::FakeClock* current = nullptr;

}  // namespace

// The linker gives calls of time to __wrap_time, and calls of __real_time to time (ld's --wrap).
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
std::time_t __real_time(std::time_t* result);

std::time_t __wrap_time(std::time_t* result) {
    if (current == nullptr) {
        return __real_time(result);
    }
    if (result != nullptr) {
        *result = current->now;
    }
    return current->now;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
}

namespace korva::test {

FakeClock::FakeClock() {
    current = this;
}

FakeClock::~FakeClock() {
    current = nullptr;
}

}  // namespace korva::test
