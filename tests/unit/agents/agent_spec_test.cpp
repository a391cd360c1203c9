// SPDX-License-Identifier: Apache-2.0
#include "agents/agent_spec.h"

#include "support/captured_log.h"
#include "support/files.h"
#include "support/product_dir.h"
#include "support/temp_dir.h"
#include "support/thrown_errors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace korva {
namespace {

using test::CapturedLog;
using test::debugRecord;
using test::ErrorRecord;
using test::errorsOf;
using test::isError;
using test::productDir;
using test::TempDir;
using test::writeFile;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

class AgentSpec : public testing::Test {
  protected:
    Agent::Values parse(const std::string& text) const {
        writeFile(path, text);
        return Agent::parse(path);
    }
    std::vector<ErrorRecord> errorsOfParsing(const std::string& text) const {
        return errorsOf([&] { parse(text); });
    }
    Agent agent(const std::string& text) const {
        writeFile(path, text);
        return Agent("sample", path);
    }

    TempDir dir;
    const std::string path = dir / "spec";
};

TEST_F(AgentSpec, GivesFiveValuesInWhateverOrderTheyStand) {
    EXPECT_THAT(parse("Interpreter: python3\n"
                      "Stylesheet: dump.xsl\n"
                      "DocumentType: dump\n"
                      "EntryPoint: run.py\n"
                      "Description: A sample\n"),
                ElementsAre("A sample", "run.py", "dump", "dump.xsl", "python3"));
}

TEST_F(AgentSpec, LeavesEmptyWhatTheFileDoesNotGive) {
    EXPECT_THAT(parse("EntryPoint: run.pl\n"), ElementsAre("", "run.pl", "", "", ""));
    EXPECT_THAT(parse(""), Each(""));
}

TEST_F(AgentSpec, DropsBlanksInFrontOfAValue) {
    EXPECT_EQ("run.pl", parse("EntryPoint:   run.pl\n")[Agent::kEntryPoint]);
    EXPECT_EQ("run.pl", parse("EntryPoint: \t\v\f\r run.pl\n")[Agent::kEntryPoint]);
    EXPECT_EQ("run.pl", parse("EntryPoint:run.pl\n")[Agent::kEntryPoint]);
    EXPECT_EQ("", parse("EntryPoint: \t \n")[Agent::kEntryPoint]);
}

TEST_F(AgentSpec, KeepsWhiteSpaceBehindAValueACarriageReturnIncluded) {
    EXPECT_EQ("run.pl \t\r", parse("EntryPoint: run.pl \t\r\n")[Agent::kEntryPoint]);
}

TEST_F(AgentSpec, DividesALineAtItsFirstColon) {
    EXPECT_EQ("a: b:c", parse("Description: a: b:c\n")[Agent::kDescription]);
}

TEST_F(AgentSpec, ReadsALastLineWithoutItsEnd) {
    EXPECT_EQ("run.pl", parse("EntryPoint: run.pl")[Agent::kEntryPoint]);
}

TEST_F(AgentSpec, KeepsTheLastValueOfAKeyGivenTwice) {
    EXPECT_EQ("second", parse("Description: first\nDescription: second\n")[Agent::kDescription]);
    EXPECT_EQ("", parse("Description: first\nDescription:\n")[Agent::kDescription]);
}

TEST_F(AgentSpec, FailsAtALineWithoutAColonWithItsNumber) {
    EXPECT_THAT(errorsOfParsing("Description: d\n\nno colon here\nEntryPoint: e\n"),
                ElementsAre(isError("Agent::ParseFailed",
                                    path + ":3: Expected '<token>: <value>', got 'no colon here'")));
}

TEST_F(AgentSpec, FailsAtALineOfBlanksSinceOnlyEmptyOnesAreSkipped) {
    for (const char* blank : {" ", "\t", "\r"}) {
        EXPECT_THROW(parse(std::string(blank) + "\n"), Exc<&Agent::ParseFailed>);
    }
}

TEST_F(AgentSpec, FailsAtABlankBetweenKeyAndColon) {
    EXPECT_THAT(
        errorsOfParsing("EntryPoint : run.pl\n"),
        ElementsAre(isError("Agent::ParseFailed", "Illegal parameter found in " + path + ": EntryPoint ")));
}

TEST_F(AgentSpec, FailsAtAKeyThatIsNotWrittenExactlySo) {
    for (const char* key :
         {"entrypoint", "ENTRYPOINT", " EntryPoint", "EntryPoints", "Entry", "", "Version"}) {
        EXPECT_THAT(
            errorsOfParsing(key + std::string(": x\n")),
            ElementsAre(isError("Agent::ParseFailed", "Illegal parameter found in " + path + ": " + key)));
    }
}

TEST_F(AgentSpec, KnowsNoComments) {
    EXPECT_THROW(parse("# a comment\n"), Exc<&Agent::ParseFailed>);
    EXPECT_THROW(parse("# Description: a comment\n"), Exc<&Agent::ParseFailed>);
}

TEST_F(AgentSpec, TellsWhichComponentHasFailed) {
    const std::vector<ErrorRecord> errors = errorsOfParsing("x\n");
    ASSERT_EQ(1U, errors.size());
    EXPECT_EQ("./agent_spec", errors[0].file);
}

TEST_F(AgentSpec, GivesEmptyValuesForAFileThatCannotBeOpened) {
    EXPECT_THAT(Agent::parse(dir / "missing"), Each(""));
}

TEST_F(AgentSpec, FailsWhereTheFileCannotBeReadToItsEnd) {
    EXPECT_THROW(Agent::parse("/"), Exc<&Agent::ParseFailed>);
}

TEST_F(AgentSpec, MakesAnAgentOfItsValues) {
    const Agent made = agent(
        "Description: A sample\nEntryPoint: run.py\nDocumentType: dump\nStylesheet: dump.xsl\n"
        "Interpreter: python3\n");
    EXPECT_EQ("sample", made.name());
    EXPECT_EQ("A sample", made.description());
    EXPECT_EQ("run.py", made.entryPoint());
    EXPECT_EQ("dump", made.documentType());
    EXPECT_EQ("dump.xsl", made.stylesheet());
    EXPECT_EQ("python3", made.interpreter());
}

TEST_F(AgentSpec, StandsForPerlWithoutAnInterpreter) {
    EXPECT_EQ("perl", agent("EntryPoint: run.pl\n").interpreter());
    EXPECT_EQ("perl", agent("Interpreter:\n").interpreter());
    EXPECT_EQ("", Agent::parse(path)[Agent::kInterpreter]);
}

TEST_F(AgentSpec, IsLoggedWithoutItsStylesheet) {
    const std::string agents = productDir() + "/agents";
    const CapturedLog log;
    agent(
        "Description: A sample\nEntryPoint: run.py\nDocumentType: dump\nStylesheet: dump.xsl\n"
        "Interpreter: python3\n");
    EXPECT_THAT(
        log.records(),
        ElementsAre(debugRecord("k.Agent", "Agent sample"), debugRecord("k.Agent", "Description: A sample"),
                    debugRecord("k.Agent", "EntryPoint: " + agents + "/sample/control/run.py"),
                    debugRecord("k.Agent", "DocumentType: dump"),
                    debugRecord("k.Agent", "Interpreter: python3")));
}

TEST_F(AgentSpec, IsLoggedWithPerlAndWithoutWhatItLeavesOut) {
    const CapturedLog log;
    agent("");
    EXPECT_THAT(log.messages("k.Agent"), ElementsAre("Agent sample", "Description: ", "Interpreter: perl"));
}

TEST_F(AgentSpec, LogsNothingOfAFileThatCannotBeParsed) {
    const CapturedLog log;
    EXPECT_THROW(agent("nonsense\n"), Exc<&Agent::ParseFailed>);
    EXPECT_THAT(log.records(), IsEmpty());
}

}  // namespace
}  // namespace korva
