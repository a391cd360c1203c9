// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

namespace korva::agent_check {

/// Foreign text fit for a line of a terminal: without white space around it, control characters as "\x1b",
/// line ends as " / ", and cut to a few hundred bytes.
std::string oneLine(std::string_view text);

}  // namespace korva::agent_check
