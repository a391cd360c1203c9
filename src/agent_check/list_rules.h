// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "agent_check/command_run.h"
#include "agent_check/login.h"
#include "agent_check/report.h"
#include "xml/agent_file_list.h"

#include <set>
#include <string>
#include <vector>

namespace korva::agent_check {

/// A content list that was read.
struct ReadList {
    std::vector<DumpFile> files;
    std::int64_t total = 0;

    std::set<std::string> paths() const;
};

/// Reads the output of the agent as the program does. False, with the rule that it breaks and why, where the
/// program would not take it.
bool readList(const CommandResult& result, ReadList& list, const Rule*& broken, std::string& reason);

/// Judges a list against what is in the agent directory, a path without links. False where what it lists
/// cannot be fetched, or is not to be removed.
bool checkList(const ReadList& list, const std::string& agentDir, const Login& login, Report& report);

/// Why the total is not that of the files; empty where it is.
std::string faultOfTotal(const ReadList& list, const std::string& agentDir);

}  // namespace korva::agent_check
