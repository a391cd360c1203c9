// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace korva {

/// The exit statuses of the program: what the migration manager decides by.
enum ExitStatus : int {
    kExitSuccess = 0,
    kExitUsage = 1,  ///< wrong command line, or an error that nothing else handled
    kExitFailure = 2,
    kExitConnectionRefused = 11,
    kExitConnectionTimedOut = 12,
    kExitNetworkUnreachable = 13,
    kExitHostUnreachable = 14,
    kExitConnectionFault = 15,
    kExitHostNotFound = 16,
    kExitInvalidCredentials = 17,
    kExitLostConnection = 18,
};

}  // namespace korva
