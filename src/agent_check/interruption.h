// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <csignal>

namespace korva::agent_check {

/// SIGHUP, SIGINT, SIGQUIT or SIGTERM has come; what was begun is tidied up on the way out. No
/// std::exception, so that nothing takes it for a failure.
struct Interruption {
    int signal;
};

/// Keeps these signals until they are asked for.
void holdSignals();

/// What to wait with, so that they end the wait.
const sigset_t& maskWhileWaiting();

/// Throws Interruption when one has come.
void checkInterruption();

}  // namespace korva::agent_check
