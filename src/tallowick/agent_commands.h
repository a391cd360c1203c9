// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "tallowick/dump_selection.h"

#include <filesystem>
#include <string>

namespace korva {

class Agent;

/// The command lines with which a deployed agent is run, for a shell. `agentDir` is where it was deployed.

/// `command` run inside the agent directory. The line that the login's shell gets.
std::string inAgentDirectory(const std::string& agentDir, const std::string& command);

/// The script to be run.
std::string entryPath(const Agent& agent, const std::string& agentDir);

/// Asks whether the agent can work where it is.
std::string statusCommand(const Agent& agent, const std::string& agentDir);

/// Makes a dump; the text of `input` is for its standard input.
std::string dumperCommand(const Agent& agent, const std::string& agentDir, const DumperInput& input,
                          bool noContent);

/// Asks what there is to fetch.
std::string contentListCommand(const Agent& agent, const std::string& agentDir);

/// Removes a file that was fetched.
std::string removeCommand(const std::string& remotePath);

/// Whether a directory below `root`, the top of an agent or of the shared files, is the agent's own
/// description, which is for the destination host only.
bool isDescription(const std::filesystem::path& root, const std::filesystem::path& localPath);

}  // namespace korva
