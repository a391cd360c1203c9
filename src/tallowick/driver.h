// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "tallowick/options.h"

#include <string>

namespace korva {

/// The whole program but the last-resort handlers. Returns the exit status.
int real_main(int argc, char** argv);

/// Runs the selected action and records its outcome in the result document. Returns the exit status.
int do_actions(config& cfg);

/// The name of the result document within the session directory; empty for the usual one.
std::string getLogName(const config& cfg);

}  // namespace korva
