// SPDX-License-Identifier: Apache-2.0
#include "tallowick/agent_commands.h"

#include "agents/agent_spec.h"
#include "tallowick/args_builder.h"

namespace korva {

// The agent directory is quoted as part of the whole text only: what is seen on the source host is fixed.
std::string inAgentDirectory(const std::string& agentDir, const std::string& command) {
    ArgsBuilder line("sh");
    line << "-c"
         << "cd " + agentDir + "; " + command;
    return line.str();
}

std::string entryPath(const Agent& agent, const std::string& agentDir) {
    return agentDir + "/" + agent.entryPoint();
}

// The agent directory is entered twice, which is the same as once for an absolute path.
std::string statusCommand(const Agent& agent, const std::string& agentDir) {
    return (ArgsBuilder("sh") << "-c"
                              << "cd " + agentDir + " && " + agent.interpreter() + " " +
                                     entryPath(agent, agentDir) + " --get-status")
        .str();
}

std::string dumperCommand(const Agent& agent, const std::string& agentDir, const DumperInput& input,
                          bool noContent) {
    ArgsBuilder command(agent.interpreter());
    command << entryPath(agent, agentDir);
    for (const std::string& argument : input.arguments) {
        command << argument;
    }
    if (noContent) {
        command << "--no-content";
    }
    return command.str();
}

std::string contentListCommand(const Agent& agent, const std::string& agentDir) {
    return (ArgsBuilder(agent.interpreter()) << entryPath(agent, agentDir) << "--get-content-list").str();
}

std::string removeCommand(const std::string& remotePath) {
    return (ArgsBuilder("rm") << remotePath).str();
}

bool isDescription(const std::filesystem::path& root, const std::filesystem::path& localPath) {
    return localPath == root / "control";
}

}  // namespace korva
