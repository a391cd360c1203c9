// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/sh_quote.h"
#include "support/files.h"
#include "support/product_dir.h"
#include "unit/tallowick/action_fixture.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace korva::test {

/// An ActionFixture with agents: "plain" (run.pl, without an interpreter of its own) and "snake" (run.py with
/// python3). What they are is the same in all tests, since agents are parsed once in a process.
class AgentFixture : public ActionFixture {
  protected:
    AgentFixture() {
        std::filesystem::remove_all(agentsDir);
        makeAgent("plain", "EntryPoint: run.pl\n");
        makeAgent("snake", "EntryPoint: run.py\nInterpreter: python3\n");
        cfg.agent_name = "plain";
        cfg.session_path = dir / "session";
    }
    ~AgentFixture() override { std::filesystem::remove_all(agentsDir); }

    void makeAgent(const std::string& name, const std::string& spec) const {
        std::filesystem::create_directories(agentsDir + "/" + name + "/control");
        writeFile(agentsDir + "/" + name + "/control/spec", spec);
    }

    /// The line of a command that runs in the agent directory.
    static std::string inAgentDir(const std::string& command) {
        return "sh -c " + sh_quote("cd /agent; " + command);
    }
    /// The same as root.
    static std::string asRoot(const std::string& command) {
        return inAgentDir("sudo -k; sudo -S -p ' ' " + command);
    }
    FakeResult& result(const std::string& command) { return ssh.results[inAgentDir(command)]; }

    void useSudo(const std::string& password) {
        cfg.sudo = true;
        cfg.sudo_password = password;
    }

    std::string inSession(const std::string& name) const { return dir / ("session/" + name); }
    /// What is in a directory, its subdirectories left out.
    static std::vector<std::string> filesIn(const std::string& directory) {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            if (entry.is_symlink() || !entry.is_directory()) {
                names.push_back(entry.path().filename());
            }
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    std::vector<std::string> sessionFiles() const { return filesIn(dir / "session"); }

    const std::string agentsDir = productDir() + "/agents";
};

}  // namespace korva::test
