// SPDX-License-Identifier: Apache-2.0
#include "commons/signal_hold.h"

namespace korva {
namespace {

int depth = 0;
sigset_t maskBeforeOutermost;

}  // namespace

SignalHold::SignalHold() : maskBefore_() {
    sigset_t alarmOnly;
    sigemptyset(&alarmOnly);
    sigaddset(&alarmOnly, SIGALRM);
    sigprocmask(SIG_BLOCK, &alarmOnly, &maskBefore_);  // fails for bad arguments only
    if (depth++ == 0) {
        maskBeforeOutermost = maskBefore_;
    }
}

SignalHold::~SignalHold() {
    --depth;
    sigprocmask(SIG_SETMASK, &maskBefore_, nullptr);
}

void SignalHold::admit() {
    sigset_t held;
    sigprocmask(SIG_SETMASK, &maskBeforeOutermost, &held);
    sigprocmask(SIG_SETMASK, &held, nullptr);
}

const sigset_t& SignalHold::maskForWaits() {
    return maskBeforeOutermost;
}

}  // namespace korva
