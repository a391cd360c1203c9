// SPDX-License-Identifier: Apache-2.0
#include "support/fake_flock.h"

namespace korva::test {

std::function<void()> beforeFlock;

}  // namespace korva::test

// The linker gives calls of flock to __wrap_flock, and calls of __real_flock to flock (ld's --wrap).
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
int __real_flock(int fd, int operation);
int __wrap_flock(int fd, int operation);

int __wrap_flock(int fd, int operation) {
    if (korva::test::beforeFlock) {
        korva::test::beforeFlock();
    }
    return __real_flock(fd, operation);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
}
