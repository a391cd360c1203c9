// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "agent_check/report.h"
#include "agents/agent_spec.h"

#include <memory>
#include <string>

namespace korva::agent_check {

/// Judges the spec file of the agent `name` in `agentDirectory`. Null when it makes no agent that can be run
/// as it is meant.
std::unique_ptr<Agent> checkSpec(const std::string& name, const std::string& agentDirectory, Report& report);

/// Judges the entry point, now that the agent lies in `deployed`. False where there is nothing to run.
bool checkEntryPoint(const Agent& agent, const std::string& deployed, Report& report);

/// Judges what is to run it, on this machine. False where it cannot.
bool checkInterpreter(const Agent& agent, const std::string& deployed, Report& report);

}  // namespace korva::agent_check
