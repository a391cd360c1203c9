// SPDX-License-Identifier: Apache-2.0
#include "commons/ending_signals.h"

#include <ctime>
#include <initializer_list>
#include <tuple>

namespace korva {
namespace {

constexpr std::initializer_list<int> kSignals = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

volatile std::sig_atomic_t noted = 0;
sigset_t held;  // none before the first scope
sigset_t waitMask;

extern "C" void noteSignal(int signal) {
    noted = signal;
}

}  // namespace

EndingSignals::EndingSignals() {
    struct sigaction action {};
    action.sa_handler = &noteSignal;
    sigemptyset(&held);
    for (const int signal : kSignals) {
        struct sigaction before {};
        sigaction(signal, nullptr, &before);  // fails for bad arguments only
        if (before.sa_handler != SIG_IGN) {
            sigaction(signal, &action, nullptr);
            sigaddset(&held, signal);
        }
    }
    sigprocmask(SIG_BLOCK, &held, &waitMask);
    for (const int signal : kSignals) {
        sigdelset(&waitMask, signal);  // whoever started the program may have held them back
    }
}

EndingSignals::~EndingSignals() {
    for (const int signal : kSignals) {
        if (sigismember(&held, signal) == 1) {
            std::ignore = std::signal(signal, SIG_DFL);
        }
    }
    sigprocmask(SIG_SETMASK, &waitMask, nullptr);
}

const sigset_t& EndingSignals::maskForWaits() {
    return waitMask;
}

int EndingSignals::received() {
    constexpr timespec kAtOnce{0, 0};
    const int pending = sigtimedwait(&held, nullptr, &kAtOnce);
    if (pending > 0) {
        noted = pending;
    }
    return noted;
}

}  // namespace korva
