// SPDX-License-Identifier: Apache-2.0
#include "fakes/fake_migration_status.h"

#include "xml/migration_status.h"
#include "xml/xml_errors.h"

#include <stdexcept>

namespace korva {
namespace test {
namespace {

constexpr const char* kSourceName = "./fake_migration_status";

FakeMigrationStatus* current = nullptr;

FakeMigrationStatus& fake() {
    if (current == nullptr) {
        throw std::logic_error("a status document was used without a FakeMigrationStatus");
    }
    return *current;
}

class Document : public MigrationStatus {
  public:
    Document() { fake().calls.emplace_back("created"); }
    ~Document() override {
        fake().calls.emplace_back("destroyed");
        fake().onDestroyed();
    }

    void setIdle() override { fake().calls.emplace_back("idle"); }
    void setAgentParams(const std::string& params) override { tell("agent params " + params); }
    void setAgentOperation(agentOperation op) override { tell("agent operation " + std::to_string(op)); }
    void setTransferSpeed(const std::string& speed) override { tell("transfer speed " + speed); }
    void setTransferDump() override { tell("transfer dump"); }
    void setTransferTotals(const std::string& totalFiles, const std::string& totalSize) override {
        tell("transfer totals " + totalFiles + " " + totalSize);
    }
    void setTransferFilesLeft(const std::string& filesLeft) override { tell("files left " + filesLeft); }
    void setTransferSizeLeft(const std::string& sizeLeft) override { tell("size left " + sizeLeft); }
    void setCurrentFile(const std::string& name, const std::string& size) override {
        tell("current file " + name + " " + size);
    }
    void setTransferCurrentFileSizeLeft(const std::string& sizeLeft) override {
        tell("current file size left " + sizeLeft);
    }
    void setDeployTotals(const std::string& accounts, const std::string& domains) override {
        tell("deploy totals " + accounts + " " + domains);
    }
    void setDeploy(const std::string& completedAccounts, const std::string& completedDomains) override {
        tell("deploy " + completedAccounts + " " + completedDomains);
    }
    void setCurrentObject(const std::string& name, objectType type) override {
        tell("current object " + name + " " + std::to_string(type));
    }
    void setTranslate() override { tell("translate"); }
    void saveFile() override { fake().save(); }

  private:
    static void tell(const std::string& call) { fake().calls.push_back(call); }
};

}  // namespace

FakeMigrationStatus::FakeMigrationStatus() {
    current = this;
}

FakeMigrationStatus::~FakeMigrationStatus() {
    current = nullptr;
}

void FakeMigrationStatus::save() {
    calls.emplace_back("save");
    if (failingSaves.count(++saves_) != 0) {
        throw KORVA_EXC(CantRenameFile) % "migration.status.tmp" % "migration.status" % "the reason";
    }
}

}  // namespace test

std::unique_ptr<MigrationStatus> createMigrationStatusFile() {
    return std::make_unique<test::Document>();
}

}  // namespace korva
