// SPDX-License-Identifier: Apache-2.0
#include "commons/termination.h"

#include <csignal>

namespace korva {
namespace {

volatile std::sig_atomic_t isProgramTerminated = 0;

}  // namespace

void terminateProgram() {
    isProgramTerminated = 1;
}

void checkProgramTerminated() {
    if (isProgramTerminated != 0) {
        throw MigrationTerminatedException();
    }
}

}  // namespace korva
