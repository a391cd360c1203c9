// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "tallowick/options.h"

#include <chrono>
#include <string>

namespace korva::agent_check {

/// The command line.
struct CheckOptions {
    std::string agent;
    std::string shared;  ///< empty: beside the agent
    config selection;    ///< what to dump, as the program's options give it
    bool keep = false;
    bool allowRoot = false;
    bool help = false;
    std::chrono::seconds timeLimit{300};
};

/// Fills `options`. False when there is an error, which it has told on standard error.
bool parseCheckOptions(int argc, char** argv, CheckOptions& options);

/// What --help prints.
extern const char* const kUsage;

}  // namespace korva::agent_check
