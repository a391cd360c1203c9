// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

namespace korva {

/// What the panel sees of a running action. Setters only change memory: saveFile() tells the panel. Numbers
/// are decimal text, sizes are bytes, speed is bytes per second.
class MigrationStatus {
  public:
    enum agentOperation { deploy = 0, wait = 1 };
    enum objectType { account = 0, domain = 1 };

    virtual ~MigrationStatus() = default;

    virtual void setIdle() = 0;
    /// The host that the agent works on; told in every state that has to do with an agent or a transfer.
    virtual void setAgentParams(const std::string& params) = 0;
    virtual void setAgentOperation(agentOperation op) = 0;
    virtual void setTransferSpeed(const std::string& speed) = 0;
    virtual void setTransferDump() = 0;
    /// Also sets what is left to these totals.
    virtual void setTransferTotals(const std::string& totalFiles, const std::string& totalSize) = 0;
    virtual void setTransferFilesLeft(const std::string& filesLeft) = 0;
    virtual void setTransferSizeLeft(const std::string& sizeLeft) = 0;
    /// Also sets what is left of the file to its size.
    virtual void setCurrentFile(const std::string& name, const std::string& size) = 0;
    virtual void setTransferCurrentFileSizeLeft(const std::string& sizeLeft) = 0;
    virtual void setDeployTotals(const std::string& accounts, const std::string& domains) = 0;
    virtual void setDeploy(const std::string& completedAccounts, const std::string& completedDomains) = 0;
    virtual void setCurrentObject(const std::string& name, objectType type) = 0;
    virtual void setTranslate() = 0;

    /// Replaces the session's status file as a whole. It is not flushed to the disk: the next one comes soon.
    /// Throws what tXmlDocument::saveToFileAtomically() throws.
    virtual void saveFile() = 0;
};

/// A status document of its own for one action; nothing is written yet. Needs theSession when it is saved.
std::unique_ptr<MigrationStatus> createMigrationStatusFile();

}  // namespace korva
