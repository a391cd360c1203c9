// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "agent_check/command_run.h"
#include "agent_check/deployment.h"
#include "agent_check/list_rules.h"
#include "agent_check/login.h"
#include "agent_check/report.h"
#include "agent_check/status_watch.h"
#include "agents/agent_spec.h"
#include "tallowick/dump_selection.h"

#include <chrono>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace korva::agent_check {

/// What is to be checked, and how.
struct CheckRequest {
    std::filesystem::path agent;   ///< its directory
    std::filesystem::path shared;  ///< what all agents share
    DumperInput dump;              ///< with which selection it is to dump
    bool hasNames = false;         ///< whether names stand in the dumper's standard input
    std::chrono::seconds timeLimit{};
};

/// Runs an agent through the steps of a migration. A step that fails is the last one.
class AgentChecker {
  public:
    /// Works in `place`, a directory for the agent directory; theSession is to be open.
    AgentChecker(const CheckRequest& request, const std::string& place, Report& report);

    /// Throws Interruption, and SystemError where the machine does not let it check.
    void run();

  private:
    bool prepare();
    bool checkStatus();
    bool checkDump();
    bool checkFirstList();
    /// Over a whole dump, and over what is left when all of it was fetched.
    void checkFurtherDumps();
    void checkRemoval();
    void checkPasswordDump(bool isSteady, Findings& over);

    CommandResult execute(const std::string& command, const std::string& input, Watcher* watcher = nullptr);
    CommandResult executeWithModes(const std::string& command, const std::string& input,
                                   Watcher* watcher = nullptr);
    CommandResult runDumper(const std::string& firstLine);
    void tellDumpingStatus(StatusWatch& watch);
    /// Why there is no list; empty where there is one.
    std::string askForList(ReadList& list);
    /// What is wrong with a further dump, or with what is listed then.
    std::string dumpAgain(ReadList& list);
    /// The same; from now on list_ is that of the second dump.
    std::string faultOfDumpOverDump();
    std::string faultAfter(const std::set<std::string>& removed);
    /// Nothing that lies outside of the agent directory.
    void remove(const std::string& path);
    std::string faultOf(const CommandResult& result) const;
    std::string faultOfPasswordRun(const CommandResult& result) const;
    std::string faultOfDump() const;
    std::string faultOfPasswordDump(const CommandResult& result) const;

    const CheckRequest& request_;
    Login login_;
    Report& report_;
    Deployment deployment_;
    std::unique_ptr<Agent> agent_;
    std::string password_;  // as a sudo that does not ask leaves it in standard input
    std::vector<std::string> executables_;
    std::set<std::string> left_;
    ReadList list_;
    bool listIsGood_ = false;   // what is listed can be fetched
    bool listIsSound_ = false;  // the first one had no problem at all
    bool totalIsTrue_ = false;
};

}  // namespace korva::agent_check
