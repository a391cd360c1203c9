// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <poll.h>

#include <deque>
#include <functional>
#include <vector>

namespace korva::test {

/// Lets the program under test sleep in no time: while it lives, ppoll() returns at once and poll() with a
/// time-out of 0 tells what the test wants. For programs linked with --wrap=poll and --wrap=ppoll.
class WaitProbe {
  public:
    struct Wait {
        short events;
        long timeoutMs;
        bool letsAlarmIn;  ///< whether SIGALRM may come in meanwhile
    };

    WaitProbe();
    WaitProbe(const WaitProbe&) = delete;
    WaitProbe& operator=(const WaitProbe&) = delete;
    ~WaitProbe();

    /// What a sleep returns: the number of ready descriptors, or -1 with errno set.
    std::function<int(const Wait&)> onWait = [](const Wait&) { return 1; };
    /// What the next questions for writability are answered; yes once used up.
    std::deque<bool> writable;
    /// The sleeps so far.
    std::vector<Wait> waits;

    // For the functions that stand in.
    int wait(const Wait& request);
    bool takeWritable();
};

}  // namespace korva::test
