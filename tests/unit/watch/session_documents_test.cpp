// SPDX-License-Identifier: Apache-2.0
#include "watch/session_documents.h"

#include "commons/exception.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace korva {
namespace {

using test::readFile;
using State = RunStatus::State;

std::string golden(const std::string& name) {
    return readFile((std::filesystem::path(GOLDEN_DIR) / name).concat(".xml").string());
}

TEST(ParseRunStatus, KnowsEveryStateThatIsWritten) {
    EXPECT_EQ(parseRunStatus(golden("migration-status-idle")).state, State::kIdle);
    EXPECT_EQ(parseRunStatus(golden("migration-status-agent-deploy")).state, State::kSending);
    EXPECT_EQ(parseRunStatus(golden("migration-status-agent-wait")).state, State::kWaiting);
    EXPECT_EQ(parseRunStatus(golden("migration-status-transfer-dump")).state, State::kListing);
    EXPECT_EQ(parseRunStatus(golden("migration-status-transfer-files")).state, State::kFetching);
    EXPECT_EQ(parseRunStatus(golden("migration-status-translate")).state, State::kTranslating);
    EXPECT_EQ(parseRunStatus(golden("migration-status-deploy")).state, State::kDeploying);
}

TEST(ParseRunStatus, CountersOfADeploymentThatWasAreNoState) {
    EXPECT_EQ(parseRunStatus(golden("migration-status-idle-after-deploy")).state, State::kIdle);
}

TEST(ParseRunStatus, ReadsATransfer) {
    const RunStatus status = parseRunStatus(golden("migration-status-transfer-files"));
    EXPECT_EQ(status.host, "src.example");
    EXPECT_EQ(status.transfer.speed, 512);
    EXPECT_EQ(status.transfer.filesTotal, 10);
    EXPECT_EQ(status.transfer.filesLeft, 7);
    EXPECT_EQ(status.transfer.sizeTotal, 2048);
    EXPECT_EQ(status.transfer.sizeLeft, 1000);
    EXPECT_EQ(status.transfer.currentFile, "clients/a & b.tgz");
    EXPECT_EQ(status.transfer.currentSize, 300);
    EXPECT_EQ(status.transfer.currentSizeLeft, 44);
}

TEST(ParseRunStatus, ReadsADeployment) {
    const RunStatus status = parseRunStatus(golden("migration-status-deploy"));
    EXPECT_EQ(status.deployment.totalDomains, 12);
    EXPECT_EQ(status.deployment.completedAccounts, 1);
    EXPECT_EQ(status.deployment.currentObject, "example.com");
}

TEST(ParseRunStatus, WhatIsNoNumberIsMissing) {
    const RunStatus status = parseRunStatus(
        "<migration-status><transfer speed='fast'><files total='-1' left='99999999999999999999' "
        "size-total='12x' size-left=' 3'/></transfer></migration-status>");
    EXPECT_EQ(status.state, State::kFetching);
    EXPECT_FALSE(status.transfer.speed);
    EXPECT_FALSE(status.transfer.filesTotal);
    EXPECT_FALSE(status.transfer.filesLeft);
    EXPECT_FALSE(status.transfer.sizeTotal);
    EXPECT_FALSE(status.transfer.sizeLeft);
}

TEST(ParseRunStatus, StateThatNobodyKnowsIsNone) {
    EXPECT_EQ(parseRunStatus("<migration-status/>").state, State::kUnknown);
    EXPECT_EQ(parseRunStatus("<migration-status>text<other/></migration-status>").state, State::kUnknown);
}

TEST(ParseRunStatus, HalfADocumentIsAnError) {
    const std::string whole = golden("migration-status-transfer-files");
    const std::size_t end = whole.find_last_not_of('\n');
    for (std::size_t size = 0; size <= end; size += 7) {
        EXPECT_THROW(parseRunStatus(whole.substr(0, size)), ExTraceable) << size;
    }
    EXPECT_THROW(parseRunStatus("<execution-result/>"), ExTraceable);
}

TEST(ParseRunStatus, TextsAreCutToABearableLength) {
    std::string text = "<migration-status><agent action='wait'><host>";
    text.append(1'000'000, 'x').append("</host></agent></migration-status>");
    const RunStatus status = parseRunStatus(text);
    EXPECT_LT(status.host.size(), 10'000U);
}

TEST(ParseOutcome, SuccessHasNoMessages) {
    const Outcome outcome = parseOutcome(golden("result-success"));
    EXPECT_TRUE(outcome.success);
    EXPECT_TRUE(outcome.chains.empty());
}

TEST(ParseOutcome, InnermostMessageStandsFirst) {
    const Outcome outcome = parseOutcome(golden("result-chain-of-errors"));
    EXPECT_FALSE(outcome.success);
    ASSERT_EQ(outcome.chains.size(), 1U);
    ASSERT_EQ(outcome.chains[0].size(), 3U);
    EXPECT_EQ(outcome.chains[0][0].code, "ExampleInner");
    EXPECT_EQ(outcome.chains[0][0].id, "76931fac-9dab-42b3-86c2-48b87d6ae33f");
    EXPECT_EQ(outcome.chains[0][0].description, "Cannot read dump.xml: No such file or directory");
    EXPECT_EQ(outcome.chains[0][2].description, "Error during migration");
}

TEST(ParseOutcome, MessagesAboutObjectsCount) {
    const Outcome outcome = parseOutcome(golden("result-nested-objects"));
    ASSERT_EQ(outcome.chains.size(), 2U);
    EXPECT_EQ(outcome.chains[0].size(), 1U);
    EXPECT_EQ(outcome.chains[1].size(), 2U);
}

TEST(ParseOutcome, WarningsAreToldFromErrors) {
    EXPECT_TRUE(parseOutcome(golden("result-warning")).chains[0][0].isWarning);
    EXPECT_FALSE(parseOutcome(golden("result-error")).chains[0][0].isWarning);
}

TEST(ParseOutcome, ManyMessagesAreCountedOnly) {
    std::string text = "<execution-result status='error'>";
    for (int number = 0; number < 1000; ++number) {
        text += "<message/>";
    }
    text += "</execution-result>";
    const Outcome outcome = parseOutcome(text);
    EXPECT_EQ(outcome.chains.size() + outcome.leftOut, 1000U);
    EXPECT_LE(outcome.chains.size(), 100U);
}

TEST(ParseDumperStatus, ReadsWhatTheKnownAgentWrites) {
    const DumperStatus dumping = parseDumperStatus(
        "<dumping-status><dumping total='12' left='3' current='shop.example' files='812' "
        "bytes='7340032'/></dumping-status>");
    EXPECT_EQ(dumping.state, DumperStatus::State::kDumping);
    EXPECT_EQ(dumping.total, 12);
    EXPECT_EQ(dumping.left, 3);
    EXPECT_EQ(dumping.current, "shop.example");
    EXPECT_EQ(dumping.files, 812);
    EXPECT_EQ(dumping.bytes, 7340032);
    const DumperStatus finished =
        parseDumperStatus("<dumping-status><finished total='12' files='9' bytes='8'/></dumping-status>");
    EXPECT_EQ(finished.state, DumperStatus::State::kFinished);
    const DumperStatus failed =
        parseDumperStatus("<dumping-status><failed message='no room'/></dumping-status>");
    EXPECT_EQ(failed.state, DumperStatus::State::kFailed);
    EXPECT_EQ(failed.message, "no room");
}

TEST(ParseDumperStatus, WhatAnotherAgentWritesIsShownAsItComes) {
    EXPECT_EQ(parseDumperStatus("<!-- new --><progress done='3'>mail of <b/>x</progress>").message, "b");
    EXPECT_EQ(parseDumperStatus("<progress done='3' of='7'>mail</progress>").message,
              "progress done=3 of=7: mail");
    EXPECT_EQ(parseDumperStatus("<dumping-status><resting until='5'/></dumping-status>").message,
              "resting until=5");
}

}  // namespace
}  // namespace korva
