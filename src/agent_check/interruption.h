// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace korva::agent_check {

/// One of commons/ending_signals.h has come; what was begun is tidied up on the way out. No std::exception,
/// so that nothing takes it for a failure.
struct Interruption {
    int signal;
};

/// Throws Interruption when one has come.
void checkInterruption();

}  // namespace korva::agent_check
