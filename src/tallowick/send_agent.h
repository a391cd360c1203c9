// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/exception.h"
#include "tallowick/actions.h"

#include <filesystem>
#include <string>

KORVA_ERROR_TAG(NoSharedAgentsDirectory, "'shared' agents directory not found")
KORVA_ERROR_TAG(NoAgentDirectory, "Directory for agent '%1%' does not exist")

namespace korva {

KORVA_ERROR_TAG(CantCreateAgentDirectory, "Can't create agent directory %1% on the remote host: %2%")
KORVA_ERROR_TAG(CantRequestAgentStatus, "Cannot request remote agent status using command line %1%: %2%")

/// Copies the files common to all agents and those of one agent into the agent directory on the source host,
/// and keeps what the agent then says of itself.
class SendAgentAction : public Action {
  public:
    SendAgentAction() : Action(true) {}
    void execute() override;

  private:
    bool sendFile(const std::filesystem::path& root, const std::filesystem::path& localPath,
                  const std::string& remotePath);
    void sendTree(const std::filesystem::path& root);
    void makeRemoteDirectory(const std::string& remotePath);
    void requestStatus();
};

}  // namespace korva
