// SPDX-License-Identifier: Apache-2.0
#include "support/wait_probe.h"

#include <csignal>
#include <stdexcept>

namespace korva::test {
namespace {

WaitProbe* current = nullptr;

}  // namespace

WaitProbe::WaitProbe() {
    current = this;
}

WaitProbe::~WaitProbe() {
    current = nullptr;
}

int WaitProbe::wait(const Wait& request) {
    constexpr std::size_t kSurelyForEver = 10000;
    if (waits.size() > kSurelyForEver) {
        throw std::runtime_error("sleeps without end");
    }
    waits.push_back(request);
    return onWait(request);
}

bool WaitProbe::takeWritable() {
    if (writable.empty()) {
        return true;
    }
    const bool answer = writable.front();
    writable.pop_front();
    return answer;
}

}  // namespace korva::test

// The linker gives calls of a wrapped function to __wrap_…, and calls of __real_… to it (ld's --wrap).
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
int __real_poll(pollfd* fds, nfds_t count, int timeoutMs);
int __real_ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask);

int __wrap_poll(pollfd* fds, nfds_t count, int timeoutMs) {
    if (korva::test::current == nullptr || timeoutMs != 0) {
        return __real_poll(fds, count, timeoutMs);
    }
    const bool writable = korva::test::current->takeWritable();
    fds->revents = writable ? POLLOUT : 0;
    return writable ? 1 : 0;
}

int __wrap_ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask) {
    if (korva::test::current == nullptr) {
        return __real_ppoll(fds, count, timeout, mask);
    }
    const long timeoutMs = timeout->tv_sec * 1000 + timeout->tv_nsec / 1000000;
    return korva::test::current->wait({fds->events, timeoutMs, sigismember(mask, SIGALRM) == 0});
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
}
