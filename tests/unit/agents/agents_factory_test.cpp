// SPDX-License-Identifier: Apache-2.0
#include "agents/agent_spec.h"
#include "support/captured_log.h"
#include "support/files.h"
#include "support/product_dir.h"
#include "support/thrown_errors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace korva {
namespace {

namespace fs = std::filesystem;

using test::CapturedLog;
using test::debugRecord;
using test::errorRecord;
using test::errorsOf;
using test::isError;
using test::productDir;
using test::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;

class AgentsFactoryTest : public testing::Test {
  protected:
    AgentsFactoryTest() {
        fs::remove_all(agentsDir);
        fs::create_directory(agentsDir);
    }

    std::string specOf(const std::string& agent) const { return agentsDir + "/" + agent + "/control/spec"; }
    void makeAgent(const std::string& name, const std::string& spec) const {
        fs::create_directories(fs::path(specOf(name)).parent_path());
        writeFile(specOf(name), spec);
    }
    void expectNotFound(const std::string& name) {
        EXPECT_THAT(
            errorsOf([&] { factory.getAgent(name); }),
            ElementsAre(isError("AgentNotFound",
                                "Agent " + name + " was not found or does not contain proper spec file")));
    }

    const std::string agentsDir = productDir() + "/agents";
    AgentsFactory factory;
    CapturedLog log;
};

TEST_F(AgentsFactoryTest, FindsNoAgentOutsideOfTheAgentsDirectory) {
    makeAgent("sample", "EntryPoint: run.pl\n");
    expectNotFound(agentsDir + "/sample");
}

TEST_F(AgentsFactoryTest, FindsAnAgentByItsName) {
    makeAgent("sample", "EntryPoint: run.pl\n");
    const auto agent = factory.getAgent("sample");
    EXPECT_EQ("sample", agent->name());
    EXPECT_EQ("run.pl", agent->entryPoint());
    EXPECT_EQ(debugRecord("k.AgentsFactory", "Parsing sample"), log.records().front());
}

TEST_F(AgentsFactoryTest, ParsesTheSpecFileOnceHoweverOftenItIsAsked) {
    makeAgent("sample", "EntryPoint: run.pl\n");
    const auto agent = factory.getAgent("sample");
    fs::remove_all(agentsDir);
    EXPECT_EQ(agent, factory.getAgent("sample"));
    EXPECT_THAT(log.messages("k.AgentsFactory"), ElementsAre("Parsing sample"));
}

TEST_F(AgentsFactoryTest, KeepsTheAgentThatItHasWhenItParsesOnceMore) {
    makeAgent("sample", "EntryPoint: old.pl\n");
    const auto agent = factory.getAgent("sample");
    makeAgent("sample", "EntryPoint: new.pl\n");
    EXPECT_TRUE(factory.parseAgent("sample"));
    EXPECT_EQ(agent, factory.getAgent("sample"));
    EXPECT_EQ("old.pl", agent->entryPoint());
}

TEST_F(AgentsFactoryTest, DoesNotFindAnAgentWithoutADirectory) {
    expectNotFound("missing");
    writeFile(agentsDir + "/file", "");
    expectNotFound("file");
    EXPECT_THAT(log.messages("k.AgentsFactory"), ElementsAre("Parsing missing", "Parsing file"));
}

TEST_F(AgentsFactoryTest, TellsOfASpecFileThatIsMissingOrADirectory) {
    fs::create_directories(agentsDir + "/none");
    fs::create_directories(specOf("directory"));
    for (const char* name : {"none", "directory"}) {
        log.clear();
        expectNotFound(name);
        EXPECT_THAT(log.records(),
                    ElementsAre(debugRecord("k.AgentsFactory", std::string("Parsing ") + name),
                                errorRecord("k.AgentsFactory", specOf(name) + " is not a regular file")));
    }
}

TEST_F(AgentsFactoryTest, WaitsForNobodyAtAFifoInPlaceOfASpecFile) {
    fs::create_directories(agentsDir + "/fifo/control");
    ASSERT_EQ(0, ::mkfifo(specOf("fifo").c_str(), 0600));
    expectNotFound("fifo");
    EXPECT_EQ(specOf("fifo") + " is not a regular file", log.messages("k.AgentsFactory").back());
}

TEST_F(AgentsFactoryTest, FollowsALinkToASpecFile) {
    makeAgent("sample", "");
    fs::remove(specOf("sample"));
    writeFile(agentsDir + "/spec", "EntryPoint: run.pl\n");
    fs::create_symlink(agentsDir + "/spec", specOf("sample"));
    EXPECT_EQ("run.pl", factory.getAgent("sample")->entryPoint());
}

TEST_F(AgentsFactoryTest, TellsWhatIsWrongWithASpecFileAndDoesNotFindItsAgent) {
    makeAgent("broken", "EntryPoint: run.pl\nnonsense\n");
    expectNotFound("broken");
    const std::string spec = specOf("broken");
    EXPECT_THAT(
        log.records(),
        ElementsAre(debugRecord("k.AgentsFactory", "Parsing broken"),
                    errorRecord("k.AgentsFactory", spec + " is not a valid agent spec file"),
                    errorRecord("k.AgentsFactory", "Unable to parse spec file: " + spec +
                                                       ":2: Expected '<token>: <value>', got 'nonsense'")));
}

TEST_F(AgentsFactoryTest, FindsAnAgentWhoseSpecFileHasBecomeProper) {
    makeAgent("sample", "nonsense\n");
    EXPECT_FALSE(factory.parseAgent("sample"));
    makeAgent("sample", "EntryPoint: run.pl\n");
    EXPECT_EQ("run.pl", factory.getAgent("sample")->entryPoint());
}

TEST_F(AgentsFactoryTest, MakesAnAgentWithEmptyValuesOfASpecFileThatCannotBeRead) {
    constexpr uid_t kNobody = 65534;
    makeAgent("sample", "EntryPoint: run.pl\n");
    ASSERT_EQ(0, ::chmod(fs::path(productDir()).parent_path().c_str(), 0755));
    ASSERT_EQ(0, ::chmod(specOf("sample").c_str(), 0));
    ASSERT_EQ(0, ::seteuid(kNobody));
    const bool found = factory.parseAgent("sample");
    ASSERT_EQ(0, ::seteuid(0));
    ASSERT_TRUE(found);
    const auto agent = factory.getAgent("sample");
    EXPECT_EQ("", agent->description());
    EXPECT_EQ("", agent->entryPoint());
    EXPECT_EQ("", agent->documentType());
    EXPECT_EQ("", agent->stylesheet());
    EXPECT_EQ("perl", agent->interpreter());
}

TEST_F(AgentsFactoryTest, ParsesAllAgentsThatHaveAProperSpecFile) {
    makeAgent("second", "EntryPoint: run.pl\n");
    makeAgent("first", "EntryPoint: run.pl\n");
    makeAgent("broken", "nonsense\n");
    fs::create_directory(agentsDir + "/shared");
    writeFile(agentsDir + "/file", "");
    EXPECT_THAT(factory.getAllAgents(), ElementsAre(Key("first"), Key("second")));
    std::vector<std::string> messages = log.messages("k.AgentsFactory");
    EXPECT_EQ("Parsing available agents info", messages.front());
    EXPECT_EQ(0, std::count(messages.begin(), messages.end(), "Parsing file"));
}

TEST_F(AgentsFactoryTest, KnowsNoAgentsWithoutADirectoryOfAgents) {
    fs::remove_all(agentsDir);
    EXPECT_THAT(factory.getAllAgents(), IsEmpty());
    expectNotFound("sample");
}

TEST_F(AgentsFactoryTest, IsOneForTheWholeProcess) {
    EXPECT_EQ(&theAgentsFactory(), &theAgentsFactory());
    makeAgent("process-wide", "EntryPoint: run.pl\n");
    EXPECT_EQ(theAgentsFactory().getAgent("process-wide"), theAgentsFactory().getAgent("process-wide"));
}

}  // namespace
}  // namespace korva
