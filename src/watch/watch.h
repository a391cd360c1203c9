// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "watch/terminal_text.h"

#include <string>

namespace korva {

/// How the program ends.
enum WatchStatus : int { kWatchSuccess = 0, kWatchFailed = 1, kWatchMisuse = 2, kWatchNoOutcome = 3 };

/// Prints what there is now. The status is that of the outcome.
int printOnce(const std::string& directory, Charset charset);

/// Prints a line for each change until a run ends. The status is that of its outcome.
int printLines(const std::string& directory, Charset charset);

/// Shows the session on the terminal until the user has seen enough. A signal that ends it is raised again
/// once the terminal is as it was. Goes on with printLines() where a whole screen cannot be shown.
int showScreen(const std::string& directory, Charset charset);

}  // namespace korva
