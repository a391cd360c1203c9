// SPDX-License-Identifier: Apache-2.0
#include "agent_check/interruption.h"

#include "commons/ending_signals.h"

namespace korva::agent_check {

void checkInterruption() {
    if (const int signal = EndingSignals::received(); signal != 0) {
        throw Interruption{signal};
    }
}

}  // namespace korva::agent_check
