// SPDX-License-Identifier: Apache-2.0
#include "ssh/socket_wait.h"

#include "commons/signal_hold.h"

#include <poll.h>

#include <tuple>

namespace korva {

bool isWritable(int fd) {
    pollfd descriptor{fd, POLLOUT, 0};
    // An error or a hang-up counts as writable: the next write tells what is wrong.
    return poll(&descriptor, 1, 0) > 0;
}

void waitForSocket(int fd, int timeoutMs) {
    const short events = isWritable(fd) ? POLLIN : POLLIN | POLLOUT;
    pollfd descriptor{fd, events, 0};
    const timespec timeout{timeoutMs / 1000, (timeoutMs % 1000) * 1000000L};
    // Whatever ended the sleep, the caller looks anew.
    std::ignore = ppoll(&descriptor, 1, &timeout, &SignalHold::maskForWaits());
}

}  // namespace korva
