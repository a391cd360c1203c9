// SPDX-License-Identifier: Apache-2.0
#include "xml/xml_migration_status.h"

#include "fakes/fake_fsync.h"
#include "golden.h"
#include "session_dir.h"
#include "support/files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korva {
namespace {

using test::expectGolden;
using test::FakeFsync;
using test::SessionDir;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class MigrationStatusFile : public testing::Test {
  protected:
    /// Saves and returns what the panel reads.
    std::string save() {
        status->saveFile();
        return test::readFile(session / "migration.status");
    }

    SessionDir session;
    std::unique_ptr<MigrationStatus> status = createMigrationStatusFile();
};

TEST_F(MigrationStatusFile, TellsIdle) {
    status->setIdle();
    expectGolden("migration-status-idle.xml", save());
}

TEST_F(MigrationStatusFile, TellsDeploymentOfTheAgent) {
    status->setAgentParams("src.example");
    status->setAgentOperation(MigrationStatus::deploy);
    expectGolden("migration-status-agent-deploy.xml", save());
}

TEST_F(MigrationStatusFile, TellsWaitingForTheAgent) {
    status->setAgentParams("src.example");
    status->setAgentOperation(MigrationStatus::wait);
    expectGolden("migration-status-agent-wait.xml", save());
}

TEST_F(MigrationStatusFile, HasAnEmptyHostWithoutAgentParams) {
    status->setAgentOperation(MigrationStatus::wait);
    EXPECT_THAT(save(), HasSubstr("<agent action=\"wait\"><host></host></agent>"));
}

TEST_F(MigrationStatusFile, TellsTransferOfTheDump) {
    status->setAgentParams("src.example");
    status->setTransferSpeed("1048576");
    status->setTransferDump();
    expectGolden("migration-status-transfer-dump.xml", save());
}

TEST_F(MigrationStatusFile, HasNoSpeedThatIsNotKnown) {
    status->setTransferDump();
    EXPECT_THAT(save(), HasSubstr("<transfer><host></host><dumpfile/></transfer>"));
}

TEST_F(MigrationStatusFile, TellsTransferOfFiles) {
    status->setAgentParams("src.example");
    status->setTransferTotals("10", "2048");
    status->setTransferSpeed("512");
    status->setCurrentFile("clients/a & b.tgz", "300");
    status->setTransferFilesLeft("7");
    status->setTransferSizeLeft("1000");
    status->setTransferCurrentFileSizeLeft("44");
    expectGolden("migration-status-transfer-files.xml", save());
}

TEST_F(MigrationStatusFile, StartsTheTransferWithEverythingLeft) {
    status->setTransferTotals("10", "2048");
    EXPECT_THAT(save(),
                HasSubstr("<files total=\"10\" left=\"10\" size-total=\"2048\" size-left=\"2048\"/>"));
}

TEST_F(MigrationStatusFile, HasNoCurrentFileBeforeOneIsSet) {
    status->setTransferTotals("10", "2048");
    EXPECT_THAT(save(), Not(HasSubstr("current-file")));
}

TEST_F(MigrationStatusFile, HasACurrentFileWithoutAttributesWhenItsSizeIsEmpty) {
    status->setTransferTotals("10", "2048");
    status->setCurrentFile("a.tgz", "");
    EXPECT_THAT(save(), HasSubstr("<current-file>a.tgz</current-file>"));
}

TEST_F(MigrationStatusFile, StartsACurrentFileWithAllOfItLeft) {
    status->setTransferTotals("10", "2048");
    status->setTransferCurrentFileSizeLeft("1");
    status->setCurrentFile("a.tgz", "300");
    EXPECT_THAT(save(), HasSubstr("<current-file size=\"300\" size-left=\"300\">a.tgz</current-file>"));
}

TEST_F(MigrationStatusFile, HasSizesOnlyWhenBothAreKnown) {
    status->setTransferTotals("10", "");
    EXPECT_THAT(save(), HasSubstr("<files total=\"10\" left=\"10\"/>"));
    status->setTransferSizeLeft("5");
    EXPECT_THAT(save(), HasSubstr("<files total=\"10\" left=\"10\"/>"));
    status->setTransferTotals("10", "2048");
    status->setTransferSizeLeft("");
    EXPECT_THAT(save(), HasSubstr("<files total=\"10\" left=\"10\"/>"));
}

TEST_F(MigrationStatusFile, HasFileCountsEvenWhenTheyAreEmpty) {
    status->setTransferSizeLeft("5");
    EXPECT_THAT(save(), HasSubstr("<files total=\"\" left=\"\"/>"));
}

TEST_F(MigrationStatusFile, TellsTranslation) {
    status->setTranslate();
    expectGolden("migration-status-translate.xml", save());
}

TEST_F(MigrationStatusFile, TellsDeployment) {
    status->setDeployTotals("3", "12");
    status->setDeploy("1", "5");
    status->setCurrentObject("example.com", MigrationStatus::domain);
    expectGolden("migration-status-deploy.xml", save());
}

TEST_F(MigrationStatusFile, TellsAnAccountAsTheCurrentObject) {
    status->setDeployTotals("3", "12");
    status->setCurrentObject("john", MigrationStatus::account);
    EXPECT_THAT(save(), HasSubstr("<current-object type=\"account\">john</current-object>"));
}

TEST_F(MigrationStatusFile, HasAllFourCountersOfADeploymentEvenWhenTheyAreEmpty) {
    status->setDeployTotals("", "");
    EXPECT_THAT(save(), HasSubstr("<migration-status total-accounts=\"\" total-domains=\"\" "
                                  "completed-accounts=\"\" completed-domains=\"\"/>"));
}

TEST_F(MigrationStatusFile, KeepsTheCountersOfADeploymentInEveryLaterState) {
    status->setDeployTotals("3", "12");
    status->setDeploy("1", "5");
    status->setCurrentObject("example.com", MigrationStatus::domain);
    save();
    status->setDeploy("2", "6");
    save();
    status->setIdle();
    expectGolden("migration-status-idle-after-deploy.xml", save());
}

TEST_F(MigrationStatusFile, ChangesItsStateOnlyWithTheSettersThatSaySo) {
    status->setTranslate();
    status->setAgentParams("src.example");
    status->setTransferSpeed("1");
    status->setCurrentFile("a.tgz", "300");
    status->setCurrentObject("example.com", MigrationStatus::domain);
    EXPECT_THAT(save(), HasSubstr("<migration-status><translate/></migration-status>"));
}

TEST_F(MigrationStatusFile, EverySetterOfTransferredFilesMeansTransferOfFiles) {
    const std::vector<std::function<void()>> setters{
        [&] { status->setTransferTotals("1", "2"); },
        [&] { status->setTransferFilesLeft("1"); },
        [&] { status->setTransferSizeLeft("1"); },
        [&] { status->setTransferCurrentFileSizeLeft("1"); },
    };
    for (const auto& setter : setters) {
        status->setIdle();
        setter();
        EXPECT_THAT(save(), HasSubstr("<transfer><host></host><files "));
    }
}

TEST_F(MigrationStatusFile, TwoSavesInARowHaveTheSameChildrenAndNoPid) {
    for (const auto& state : std::vector<std::function<void()>>{
             [&] { status->setTransferTotals("10", "2048"); },
             [&] { status->setAgentOperation(MigrationStatus::wait); }, [&] { status->setIdle(); },
             [&] { status->setTransferDump(); }, [&] { status->setTranslate(); },
             [&] {
                 status->setDeploy("1", "2");
                 status->setCurrentObject("john", MigrationStatus::account);
             }}) {
        state();
        const std::string first = save();
        EXPECT_EQ(save(), first);
        EXPECT_THAT(first, Not(HasSubstr("pid")));
    }
}

TEST_F(MigrationStatusFile, WritesNothingBeforeItIsSaved) {
    status->setIdle();
    EXPECT_THAT(SessionDir::files(), ElementsAre());
    status->saveFile();
    EXPECT_THAT(SessionDir::files(), ElementsAre("migration.status"));
}

TEST_F(MigrationStatusFile, ReplacesTheOldFileByANewOneAndLeavesNoOther) {
    const std::string before = save();
    std::filesystem::create_hard_link(session / "migration.status", session / "reader");
    status->setTranslate();
    EXPECT_NE(before, save());
    EXPECT_EQ(before, test::readFile(session / "reader"));
    EXPECT_THAT(SessionDir::files(), ElementsAre("migration.status", "reader"));
}

TEST_F(MigrationStatusFile, LeavesADirectoryInItsPlaceWhereItIs) {
    const std::filesystem::path content = std::filesystem::path(session / "migration.status") / "content";
    std::filesystem::create_directories(content);
    EXPECT_THROW(save(), Exc<&CantRenameFile>);
    EXPECT_TRUE(std::filesystem::is_directory(content));
}

TEST_F(MigrationStatusFile, IsNotFlushedToTheDisk) {
    const FakeFsync fsync;
    save();
    EXPECT_THAT(FakeFsync::flushed(), ElementsAre());
}

TEST_F(MigrationStatusFile, HoldsNamesThatAreNoUtf8) {
    status->setTransferTotals("1", "1");
    status->setCurrentFile("caf\xE9.tgz", "1");
    EXPECT_THAT(save(), HasSubstr(">caf&#xFFFD;.tgz</current-file>"));
}

TEST_F(MigrationStatusFile, LetsErrorsOfSavingThrough) {
    status->setIdle();
    std::filesystem::remove_all(theSession->getDir());
    EXPECT_THROW(status->saveFile(), ExTraceable);
}

TEST(MigrationStatusNumbers, AreThoseOfThePanel) {
    EXPECT_EQ(static_cast<int>(MigrationStatus::deploy), 0);
    EXPECT_EQ(static_cast<int>(MigrationStatus::account), 0);
}

}  // namespace
}  // namespace korva
