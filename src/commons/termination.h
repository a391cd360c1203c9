// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <stdexcept>

namespace korva {

/// The run was asked to end. Not an error: the run counts as a success.
class MigrationTerminatedException : public std::runtime_error {
  public:
    MigrationTerminatedException() : std::runtime_error("Migration has been terminated") {}
};

/// Asks the running action to end before the next chunk of data. Safe in a signal handler.
void terminateProgram();

/// Throws MigrationTerminatedException once terminateProgram() was called.
void checkProgramTerminated();

}  // namespace korva
