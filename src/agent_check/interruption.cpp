// SPDX-License-Identifier: Apache-2.0
#include "agent_check/interruption.h"

#include <ctime>
#include <initializer_list>

namespace korva::agent_check {
namespace {

constexpr std::initializer_list<int> kSignals = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

volatile std::sig_atomic_t received = 0;
sigset_t held;  // none until holdSignals()
sigset_t before;

}  // namespace

void holdSignals() {
    struct sigaction action {};
    action.sa_handler = [](int signal) { received = signal; };
    for (const int signal : kSignals) {
        struct sigaction present {};
        sigaction(signal, nullptr, &present);
        if (present.sa_handler != SIG_IGN) {  // nohup(1)
            sigaction(signal, &action, nullptr);
            sigaddset(&held, signal);
        }
    }
    sigprocmask(SIG_BLOCK, &held, &before);
    for (const int signal : kSignals) {
        sigdelset(&before, signal);
    }
}

const sigset_t& maskWhileWaiting() {
    return before;
}

void checkInterruption() {
    constexpr timespec kAtOnce{0, 0};
    const int pending = sigtimedwait(&held, nullptr, &kAtOnce);
    if (pending > 0 || received != 0) {
        throw Interruption{pending > 0 ? pending : received};
    }
}

}  // namespace korva::agent_check
