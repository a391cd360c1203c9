// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/exception.h"

KORVA_ERROR_TAG(OptParsingError, "Unable to parse command line: %1%")

namespace korva {

// Each throws OptParsingError with the rule that the command line breaks.

[[noreturn]] void req_action_argument_missed(const char* what);
[[noreturn]] void invalid_option(const char* what);
[[noreturn]] void extra_option(const char* option, const char* action);
[[noreturn]] void no_action_option(const char* option, const char* action);

}  // namespace korva
