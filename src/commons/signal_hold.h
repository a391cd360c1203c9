// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <csignal>

namespace korva {

/// Holds SIGALRM back while it lives, so that no library call fails half-done with EINTR. Waits that are
/// written for it let the signal in by handing maskForWaits() to ppoll(2). Scopes may nest.
class SignalHold {
  public:
    SignalHold();
    SignalHold(const SignalHold&) = delete;
    SignalHold& operator=(const SignalHold&) = delete;
    ~SignalHold();

    /// The signal mask as it was before the outermost scope; only while there is one.
    static const sigset_t& maskForWaits();

    /// Lets a signal in that has come meanwhile, for work that goes on without a wait; only while there is a
    /// scope, and between library calls.
    static void admit();

  private:
    sigset_t maskBefore_;
};

}  // namespace korva
