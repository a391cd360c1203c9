// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <csignal>

namespace korva {

/// While it lives, SIGHUP, SIGINT, SIGQUIT and SIGTERM are held back, and only noted. A signal that whoever
/// started the program has it ignore stays ignored, as nohup(1) wants it. One scope at a time.
class EndingSignals {
  public:
    EndingSignals();
    EndingSignals(const EndingSignals&) = delete;
    EndingSignals& operator=(const EndingSignals&) = delete;
    /// The signals end the program again.
    ~EndingSignals();

    /// The signal mask for ppoll(2), so that they end the wait.
    static const sigset_t& maskForWaits();

    /// The number of one that has come, or 0.
    static int received();
};

}  // namespace korva
