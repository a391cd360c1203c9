// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "xml/migration_status.h"
#include "xml/xml_wrap.h"

#include <string>

namespace korva {

/// The status as the document "migration-status" in the session directory.
class XmlMigrationStatus : public tXmlDvxDocument, public MigrationStatus {
  public:
    XmlMigrationStatus();

    void setIdle() override;
    void setAgentParams(const std::string& params) override;
    void setAgentOperation(agentOperation op) override;
    void setTransferSpeed(const std::string& speed) override;
    void setTransferDump() override;
    void setTransferTotals(const std::string& totalFiles, const std::string& totalSize) override;
    void setTransferFilesLeft(const std::string& filesLeft) override;
    void setTransferSizeLeft(const std::string& sizeLeft) override;
    void setCurrentFile(const std::string& name, const std::string& size) override;
    void setTransferCurrentFileSizeLeft(const std::string& sizeLeft) override;
    void setDeployTotals(const std::string& accounts, const std::string& domains) override;
    void setDeploy(const std::string& completedAccounts, const std::string& completedDomains) override;
    void setCurrentObject(const std::string& name, objectType type) override;
    void setTranslate() override;
    void saveFile() override;

  protected:
    int putInPlace(const std::string& temporary, const std::string& path) const override;

  private:
    enum State { kIdle = 0, kAgent = 1, kTransferDump = 2, kTransferFiles = 3, kTranslate = 4, kDeploy = 5 };

    void rebuild();
    void addAgent();
    void addTransfer();
    void addFiles(xmlNodePtr transfer);
    void addDeploy();

    State state_ = kIdle;
    agentOperation agentOperation_ = deploy;
    std::string pid_;
    std::string agentParams_;
    std::string transferSpeed_;
    std::string filesTotal_;
    std::string filesLeft_;
    std::string sizeTotal_;
    std::string sizeLeft_;
    std::string currentFileSizeLeft_;
    std::string currentFileName_;
    std::string currentFileSize_;
    std::string totalAccounts_;
    std::string totalDomains_;
    std::string completedAccounts_;
    std::string completedDomains_;
    std::string currentObjectName_;
    objectType currentObjectType_ = account;
};

}  // namespace korva
