// SPDX-License-Identifier: Apache-2.0
#include "xml/xml_log.h"

#include "example_errors.h"
#include "fakes/fake_fsync.h"
#include "golden.h"
#include "session_dir.h"
#include "support/files.h"
#include "xml/text_msg_formatter.h"

#include <boost/format.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <functional>

namespace {

std::function<int()> failingRename;  // what the next renameat2() fails with, if anything

}  // namespace

// The linker gives calls of a function f to __wrap_f, and calls of __real_f to f (ld's --wrap).
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
int __real_renameat2(int fromDirectory, const char* from, int toDirectory, const char* to, unsigned flags);

int __wrap_renameat2(int fromDirectory, const char* from, int toDirectory, const char* to, unsigned flags) {
    if (failingRename) {
        errno = failingRename();
        return -1;
    }
    return __real_renameat2(fromDirectory, from, toDirectory, to, flags);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
}

namespace korva {
namespace {

using test::ExampleOuter;
using test::expectGolden;
using test::FakeFsync;
using test::innerError;
using test::outerError;
using test::readFile;
using test::SessionDir;
using test::writeFile;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

/// A debug log that keeps what it is told.
class NotedDebugLog : public DebugLog {
  public:
    NotedDebugLog() { theDebugLog = this; }
    NotedDebugLog(const NotedDebugLog&) = delete;
    NotedDebugLog& operator=(const NotedDebugLog&) = delete;
    ~NotedDebugLog() override { theDebugLog = nullptr; }

    void log(const std::string& text) override { texts.push_back(text); }
    void log(const boost::format& text) override { log(text.str()); }
    void log(const ExTraceable& error) override { log(formatPlainTextMessage(error)); }
    bool isVerboseMode() const override { return false; }
    bool isDebugMode() const override { return false; }

    std::vector<std::string> texts;
};

class ResultLog : public testing::Test {
  protected:
    // Identifiers are drawn from rand(): with a fixed seed they are those of the golden documents.
    ResultLog() { std::srand(1); }
    ~ResultLog() override { failingRename = nullptr; }

    std::string document() const { return readFile(session / "migration.result"); }

    SessionDir session;
};

TEST_F(ResultLog, OfASuccessfulRunHasNoMessages) {
    XmlLog log("");
    log.setSuccess(true);
    log.close();
    expectGolden("result-success.xml", document());
}

TEST_F(ResultLog, RecordsFailureUnlessSuccessWasTold) {
    XmlLog log("");
    log.close();
    EXPECT_THAT(document(), HasSubstr("<execution-result status=\"error\"/>"));
}

TEST_F(ResultLog, HasTheLastWordOnSuccess) {
    XmlLog log("");
    log.setSuccess(true);
    log.setSuccess(false);
    log.close();
    EXPECT_THAT(document(), HasSubstr("status=\"error\""));
}

TEST_F(ResultLog, RecordsAnError) {
    XmlLog log("");
    log.log(innerError());
    log.close();
    expectGolden("result-error.xml", document());
}

TEST_F(ResultLog, RecordsAWarning) {
    XmlLog log("");
    auto warning = innerError();
    warning.setSeverity(kSeverityWarning);
    log.log(warning);
    log.setSuccess(true);
    log.close();
    expectGolden("result-warning.xml", document());
}

TEST_F(ResultLog, RecordsAnIncludedErrorInsideTheOneThatIncludesIt) {
    XmlLog log("");
    log.log(outerError());
    log.close();
    expectGolden("result-included-error.xml", document());
}

TEST_F(ResultLog, RecordsAChainOfIncludedErrors) {
    XmlLog log("");
    log.log(Exc<&ExampleOuter>("int main()", "./main", 56, outerError()) % "migration");
    log.close();
    expectGolden("result-chain-of-errors.xml", document());
}

TEST_F(ResultLog, RecordsSeveralErrorsInTheirOrder) {
    XmlLog log("");
    log.log(innerError());
    log.log(outerError());
    log.close();
    expectGolden("result-several-errors.xml", document());
}

TEST_F(ResultLog, RecordsForeignBytesAsValidXml) {
    XmlLog log("");
    log.log(Exc<&ExampleOuter>("void action()", "./actions", 34) %
            std::string("<\xFF & \0 \x1B[1m\r\n caf\xC3\xA9>", 20));
    log.close();
    expectGolden("result-foreign-bytes.xml", document());
    tXmlDvxDocument read((session / "migration.result").c_str());
    read.initFileDoc("execution-result");
    EXPECT_NE(tXmlDvxDocument::getNodeText(read.getRootNodeChild("message")->children), "");
}

TEST_F(ResultLog, KeepsAnObjectInWhichAnErrorWasLogged) {
    XmlLog log("");
    log.pushObject("example.com", "domain");
    log.log(innerError());
    log.popObject();
    log.close();
    expectGolden("result-object.xml", document());
}

TEST_F(ResultLog, KeepsEveryObjectAroundTheOneInWhichAnErrorWasLogged) {
    XmlLog log("");
    log.pushObject("john", "client");
    log.pushObject("quiet.example", "domain");
    log.popObject();
    log.pushObject("example.com", "domain");
    log.pushObject("mail \"1\" & <2>", "mail");
    log.log(innerError());
    log.popObject();
    log.popObject();
    log.popObject();
    log.log(outerError());
    log.close();
    expectGolden("result-nested-objects.xml", document());
}

TEST_F(ResultLog, LeavesNoTraceOfAnObjectInWhichNothingWasLogged) {
    XmlLog log("");
    log.pushObject("example.com", "domain");
    log.popObject();
    log.close();
    EXPECT_THAT(document(), HasSubstr("<execution-result status=\"error\"/>"));
}

TEST_F(ResultLog, DoesNotTakeAnEarlierErrorForOneOfTheObject) {
    XmlLog log("");
    log.log(innerError());
    log.pushObject("example.com", "domain");
    log.popObject();
    log.close();
    EXPECT_THAT(document(), Not(HasSubstr("object")));
    EXPECT_THAT(document(), HasSubstr("ExampleInner"));
}

TEST_F(ResultLog, CountsOpenObjects) {
    XmlLog log("");
    EXPECT_EQ(log.getDepth(), 0U);
    log.pushObject("a", "b");
    log.pushObject("c", "d");
    EXPECT_EQ(log.getDepth(), 2U);
    log.popObject();
    EXPECT_EQ(log.getDepth(), 1U);
    log.popObject();
    EXPECT_EQ(log.getDepth(), 0U);
}

TEST_F(ResultLog, RefusesToCloseAnObjectThatWasNotOpened) {
    XmlLog log("");
    try {
        log.popObject();
        FAIL();
    } catch (const Exc<&NoParentNode>& error) {
        EXPECT_STREQ(error.what(), "No parent node on requested XML element");
    }
    EXPECT_EQ(log.getDepth(), 0U);
}

TEST_F(ResultLog, WritesNothingBeforeTheEnd) {
    XmlLog log("");
    log.log(innerError());
    EXPECT_THAT(SessionDir::files(), ElementsAre());
    log.close();
    EXPECT_THAT(SessionDir::files(), ElementsAre("migration.result"));
}

TEST_F(ResultLog, GoesToTheFileThatIsNamed) {
    XmlLog log("transfer.result");
    log.close();
    EXPECT_THAT(SessionDir::files(), ElementsAre("transfer.result"));
    EXPECT_EQ(log.fileName(), session / "transfer.result");
}

TEST_F(ResultLog, IsFlushedToTheDiskWithItsDirectory) {
    XmlLog log("");
    const FakeFsync fsync;
    log.close();
    EXPECT_THAT(FakeFsync::flushed(),
                ElementsAre(MatchesRegex((session / "migration.result") + "......"), theSession->getDir()));
}

TEST_F(ResultLog, KeepsItsPredecessorsUnderNumbersNewestLast) {
    for (int run = 1; run <= 3; ++run) {
        XmlLog log("transfer.result");
        log.log(Exc<&ExampleOuter>("", "", 1) % ("run " + std::to_string(run)));
        log.close();
    }
    EXPECT_THAT(SessionDir::files(),
                ElementsAre("transfer.result", "transfer.result.1", "transfer.result.2"));
    EXPECT_THAT(readFile(session / "transfer.result.1"), HasSubstr("run 1"));
    EXPECT_THAT(readFile(session / "transfer.result.2"), HasSubstr("run 2"));
    EXPECT_THAT(readFile(session / "transfer.result"), HasSubstr("run 3"));
}

TEST_F(ResultLog, MovesItsPredecessorAwayAtTheStart) {
    writeFile(session / "migration.result", "old");
    const XmlLog log("");
    EXPECT_THAT(SessionDir::files(), ElementsAre("migration.result.1"));
}

TEST_F(ResultLog, TakesTheFirstNumberThatIsFree) {
    writeFile(session / "migration.result", "old");
    writeFile(session / "migration.result.1", "one");
    writeFile(session / "migration.result.3", "three");
    const XmlLog log("");
    EXPECT_EQ(readFile(session / "migration.result.1"), "one");
    EXPECT_EQ(readFile(session / "migration.result.2"), "old");
    EXPECT_EQ(readFile(session / "migration.result.3"), "three");
}

TEST_F(ResultLog, TakesTheNextNumberWhenAnotherRunHasJustTakenOne) {
    writeFile(session / "migration.result", "old");
    failingRename = [] {
        failingRename = nullptr;
        return EEXIST;
    };
    const XmlLog log("");
    EXPECT_THAT(SessionDir::files(), ElementsAre("migration.result.2"));
}

TEST_F(ResultLog, DoesNotMindThatAnotherRunHasJustMovedItsPredecessor) {
    // And that a third one has put its own there since.
    writeFile(session / "migration.result", "old");
    failingRename = [] {
        failingRename = nullptr;
        return ENOENT;
    };
    EXPECT_NO_THROW(XmlLog(""));
}

TEST_F(ResultLog, HasNoPredecessorToMoveOnAReadOnlyDiskWithoutOne) {
    failingRename = [] { return EROFS; };
    {
        const XmlLog log("");
        failingRename = nullptr;
    }
    writeFile(session / "migration.result", "old");
    failingRename = [] { return EROFS; };
    EXPECT_THROW(XmlLog(""), Exc<&CantRenameFile>);
}

TEST_F(ResultLog, LooksForAFreeNumberWhereRenamingMayReplace) {
    writeFile(session / "migration.result", "old");
    writeFile(session / "migration.result.1", "one");
    failingRename = [] { return EINVAL; };
    const XmlLog log("");
    EXPECT_EQ(readFile(session / "migration.result.1"), "one");
    EXPECT_EQ(readFile(session / "migration.result.2"), "old");
}

TEST_F(ResultLog, TakesDanglingLinksForExistingFiles) {
    std::filesystem::create_symlink("nowhere", session / "migration.result");
    std::filesystem::create_symlink("nowhere", session / "migration.result.1");
    XmlLog log("");
    log.close();
    EXPECT_EQ(std::filesystem::read_symlink(session / "migration.result.2"), "nowhere");
    EXPECT_EQ(std::filesystem::read_symlink(session / "migration.result.1"), "nowhere");
    EXPECT_FALSE(std::filesystem::is_symlink(session / "migration.result"));
}

TEST_F(ResultLog, SaysSoWhenItsPredecessorCannotBeMoved) {
    const std::string name(254, 'n');  // too long for a file once a number follows
    writeFile(session / name, "old");
    EXPECT_THROW(XmlLog log(name), Exc<&CantRenameFile>);
}

TEST_F(ResultLog, IsClosedByItsEndWhenNobodyElseHasDoneSo) {
    {
        XmlLog log("");
        log.setSuccess(true);
    }
    EXPECT_THAT(document(), HasSubstr("<execution-result status=\"success\"/>"));
}

TEST_F(ResultLog, IsNotWrittenAgainByItsEnd) {
    {
        XmlLog log("");
        log.close();
        std::filesystem::remove(session / "migration.result");
    }
    EXPECT_THAT(SessionDir::files(), ElementsAre());
}

TEST_F(ResultLog, KeepsWhatAnotherRunHasWrittenMeanwhile) {
    XmlLog first("");
    XmlLog second("");
    XmlLog third("");
    third.setSuccess(true);
    first.close();
    const std::string one = document();
    second.close();
    third.close();
    EXPECT_THAT(SessionDir::files(),
                ElementsAre("migration.result", "migration.result.1", "migration.result.2"));
    EXPECT_EQ(readFile(session / "migration.result.1"), one);
    EXPECT_THAT(document(), HasSubstr("status=\"success\""));
}

TEST_F(ResultLog, KeepsWhatAnotherRunHasWrittenWhereRenamingMayReplace) {
    XmlLog log("");
    writeFile(session / "migration.result", "other");
    failingRename = [] { return EINVAL; };
    log.close();
    EXPECT_EQ(readFile(session / "migration.result.1"), "other");
    EXPECT_THAT(document(), HasSubstr("<execution-result"));
}

TEST_F(ResultLog, TriesAgainWhenAnotherRunIsQuicker) {
    XmlLog log("");
    failingRename = [] {
        failingRename = nullptr;
        return EEXIST;
    };
    log.close();
    EXPECT_THAT(SessionDir::files(), ElementsAre("migration.result"));
}

TEST_F(ResultLog, TellsAFailureToClose) {
    XmlLog log("");
    failingRename = [] { return EACCES; };
    EXPECT_THROW(log.close(), Exc<&CantRenameFile>);
}

TEST_F(ResultLog, DoesNotTryAgainWhenItCouldNotBeClosed) {
    const NotedDebugLog debugLog;
    {
        XmlLog log("");
        failingRename = [] { return EACCES; };
        EXPECT_THROW(log.close(), Exc<&CantRenameFile>);
        failingRename = nullptr;
    }
    EXPECT_FALSE(std::filesystem::exists(session / "migration.result"));
    EXPECT_THAT(debugLog.texts, ElementsAre());
}

TEST_F(ResultLog, OnlyTellsTheDebugLogWhenItCannotBeClosedAtItsEnd) {
    const NotedDebugLog debugLog;
    {
        const XmlLog log("");
        failingRename = [] { return EACCES; };
    }
    EXPECT_THAT(debugLog.texts, ElementsAre(HasSubstr("Cannot rename ")));
}

TEST_F(ResultLog, SurvivesAFailureAtItsEndWithoutADebugLog) {
    {
        const XmlLog log("");
        failingRename = [] { return EACCES; };
    }
    EXPECT_FALSE(std::filesystem::exists(session / "migration.result"));
}

TEST(ResultLogNames, MayHoldPercentSigns) {
    const SessionDir session("100%1%");
    writeFile(session / "migration.result", "old");
    XmlLog log("");
    log.close();
    EXPECT_THAT(SessionDir::files(), ElementsAre("migration.result", "migration.result.1"));
}

TEST(ResultLogNames, KeepADoubledSlashOfTheSessionPath) {
    const SessionDir session("session/");
    const XmlLog log("transfer.result");
    EXPECT_THAT(log.fileName(), testing::EndsWith("/session//transfer.result"));
}

}  // namespace
}  // namespace korva
