// SPDX-License-Identifier: Apache-2.0
#include "ssh/socket_wait.h"

#include "commons/signal_hold.h"

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <tuple>

namespace korva {
namespace {

// The number of ready descriptors, 0 on time-out, -1 with EINTR after a signal.
int waitFor(int fd, short events, int timeoutMs) {
    pollfd descriptor{fd, events, 0};
    const timespec timeout{timeoutMs / 1000, (timeoutMs % 1000) * 1000000L};
    return ppoll(&descriptor, 1, &timeout, &SignalHold::maskForWaits());
}

}  // namespace

bool isWritable(int fd) {
    pollfd descriptor{fd, POLLOUT, 0};
    // An error or a hang-up counts as writable: the next write tells what is wrong.
    return poll(&descriptor, 1, 0) > 0;
}

void waitForSocket(int fd, int timeoutMs) {
    const short events = isWritable(fd) ? POLLIN : POLLIN | POLLOUT;
    std::ignore = waitFor(fd, events, timeoutMs);  // whatever ended the sleep, the caller looks anew
}

bool waitForFirstBytes(int fd, int timeoutMs) {
    using std::chrono::steady_clock;
    const auto deadline = steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - steady_clock::now()).count();
        const int ready = waitFor(fd, POLLIN, static_cast<int>(std::max<long>(left, 0)));
        if (ready > 0) {
            return true;
        }
        if (ready == 0 || left <= 0) {
            return false;
        }
    }
}

}  // namespace korva
