// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <libssh2.h>

#include <limits>

namespace korva {

/// The longest sleep of a running command: it then looks after its alarm.
inline constexpr int kWakeUpMs = 5000;

// The sleeps below let signals in that a SignalHold keeps back, and need one around them.

/// Whether the socket takes bytes just now.
bool isWritable(int fd);

/// Sleeps until `fd` is readable (writable too, if it is not writable now), at most `timeoutMs`
/// milliseconds; a signal ends the sleep.
void waitForSocket(int fd, int timeoutMs);

/// Repeats a call that may not be left half-done while it returns LIBSSH2_ERROR_EAGAIN, with sleeps of at
/// most `timeoutMs` milliseconds in between. Returns its result, LIBSSH2_ERROR_EAGAIN after `mostSleeps` in
/// vain.
template <typename Call>
int repeatUntilDone(int fd, int timeoutMs, Call call, int mostSleeps = std::numeric_limits<int>::max()) {
    // libssh2 does not tell what it waits for. The socket may have begun to take bytes since it was found
    // full: then nothing would end the sleep.
    constexpr int kRepeatsAtOnce = 2;
    int repeats = 0;
    int result = call();
    for (int sleeps = 0; result == LIBSSH2_ERROR_EAGAIN && sleeps < mostSleeps; result = call()) {
        if (repeats < kRepeatsAtOnce && isWritable(fd)) {
            ++repeats;
            continue;
        }
        waitForSocket(fd, timeoutMs);
        ++sleeps;
        repeats = 0;
    }
    return result;
}

}  // namespace korva
