// SPDX-License-Identifier: Apache-2.0
#include "tallowick/retrieve_dump.h"

#include "fakes/fake_fsync.h"
#include "ssh/libssh2pp.h"
#include "support/file_size_limit.h"
#include "support/thrown_errors.h"
#include "tallowick/status_refresh.h"
#include "unit/tallowick/agent_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace korva {
namespace {

namespace fs = std::filesystem;

using test::errorsOf;
using test::FileSizeLimit;
using test::isError;
using test::readFile;
using test::writeFile;
using testing::_;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char* kGet = "get /agent/dump.xml";
constexpr const char* kDumper = "perl /agent/run.pl --migration-mode";

class RetrieveDump : public test::AgentFixture {
  protected:
    RetrieveDump() { setInput({{"--migration-mode"}, ""}); }
    ~RetrieveDump() override {
        ::alarm(0);
        std::signal(SIGALRM, SIG_DFL);
        pAction = nullptr;
    }

    void setInput(const DumperInput& input) {
        action.emplace(input);
        action->setConfig(&cfg);
        status.calls.clear();
    }
    std::vector<test::ErrorRecord> failure() {
        return errorsOf([this] { action->execute(); });
    }
    /// What a failed retrieval throws.
    template <typename... Causes>
    static auto retrievalFailure(Causes... causes) {
        return ElementsAre(isError("CantRetrieveDump", "Error during dump retrieval"), causes...);
    }
    static auto dumpFileFailure(const std::string& err) {
        return isError("CantRetrieveDumpFile",
                       "Error during dump file retrieving. \nRemote agent failed with the following stderr "
                       "messages: " +
                           err);
    }
    std::string dumpName() const { return inSession("dump.xml"); }

    std::optional<RetrieveDumpAction> action;
};

TEST_F(RetrieveDump, RunsTheDumperFetchesItsDumpAndRecordsTheNameOfThat) {
    result(kDumper) = {0, "printed", "warnings"};
    ssh.results[kGet].out = "<dump/>";
    action->execute();
    EXPECT_THAT(ssh.lines(),
                ElementsAre("sh -c cd\\ /agent\\;\\ perl\\ /agent/run.pl\\ --migration-mode", kGet));
    EXPECT_EQ("<dump/>", readFile(dumpName()));
    EXPECT_EQ(dumpName(), readFile(inSession("dump-name")));
    EXPECT_THAT(sessionFiles(), ElementsAre("dump-name", "dump.xml"));
    EXPECT_THAT(status.calls, ElementsAre("agent params source.example", "agent operation 1", "save"));
}

TEST_F(RetrieveDump, HasTheDumpOnTheDiskBeforeItsName) {
    ssh.results[kGet].out = "<dump/>";
    test::FakeFsync fsync;
    std::vector<bool> named;  // at each flush
    fsync.onFlush = [&](const std::string&) { named.push_back(fs::exists(dumpName())); };
    action->execute();
    EXPECT_THAT(named, ElementsAre(false, true, true, true));
    const auto temporary = HasSubstr("/session/.incoming-");
    EXPECT_THAT(test::FakeFsync::flushed(),
                ElementsAre(temporary, dir / "session", temporary, dir / "session"));
}

TEST_F(RetrieveDump, FailsWhenTheDumpCannotBeFlushed) {
    ssh.results[kGet].out = "<dump/>";
    const test::FakeFsync fsync(EIO);
    EXPECT_THAT(failure(), retrievalFailure(isError("StreamWrite", "Cannot write data to the stream")));
    EXPECT_FALSE(fs::exists(dumpName()));
    EXPECT_THAT(debugLog.texts, ElementsAre(HasSubstr("Input/output error")));
}

TEST_F(RetrieveDump, GivesTheDumperItsArgumentsQuotedAndInTheirOrder) {
    setInput({{"--migration-mode", "--dump-domains=-", "a b"}, "x"});
    cfg.no_content = true;
    cfg.agent_name = "snake";
    cfg.agent_dir = "/my agent";
    action->execute();
    EXPECT_EQ(
        "sh -c " + sh_quote("cd /my agent; python3 /my\\ agent/run.py --migration-mode --dump-domains=- "
                            "a\\ b --no-content"),
        ssh.commands.at(0).line);
}

TEST_F(RetrieveDump, SendsNoInputWhenThereIsNone) {
    action->execute();
    EXPECT_EQ("", ssh.commands.at(0).input);
    EXPECT_FALSE(ssh.commands[0].quietOutput);
    EXPECT_FALSE(ssh.commands[0].quietInput);
}

TEST_F(RetrieveDump, SendsTheListsAsInput) {
    setInput({{"--migration-mode"}, "d1,d2\nc1"});
    action->execute();
    EXPECT_EQ("d1,d2\nc1", ssh.commands.at(0).input);
    EXPECT_FALSE(ssh.commands[0].quietOutput);
    EXPECT_FALSE(ssh.commands[0].quietInput);
}

TEST_F(RetrieveDump, SendsOnlyThePasswordLineWithSudoWhenThereIsNoInput) {
    useSudo("sudo word");
    action->execute();
    EXPECT_EQ(asRoot(kDumper), ssh.commands.at(2).line);
    EXPECT_EQ("sudo word\n", ssh.commands[2].input);
}

TEST_F(RetrieveDump, SendsTheListsBehindThePasswordLineWithSudo) {
    useSudo("sudo word");
    setInput({{"--migration-mode"}, "d1,d2"});
    action->execute();
    EXPECT_EQ("sudo word\nd1,d2", ssh.commands.at(2).input);
}

TEST_F(RetrieveDump, TakesTheDumpBeforeItFetchesItWithSudo) {
    useSudo("");
    action->execute();
    EXPECT_THAT(ssh.lines(), ElementsAre("sudo -V", "sudo -k; sudo -S -p ' ' true", asRoot(kDumper),
                                         asRoot("chown user /agent/dump.xml"), kGet));
}

TEST_F(RetrieveDump, FailsWithTheErrorOutputOfTheDumperAndFetchesNothing) {
    result(kDumper) = {3, "", "died at line 1."};
    EXPECT_THAT(failure(), retrievalFailure(dumpFileFailure("died at line 1.")));
    EXPECT_EQ(1U, ssh.commands.size());
    EXPECT_THAT(sessionFiles(), IsEmpty());
}

TEST_F(RetrieveDump, FailsWhenTheDumpIsMissingAndKeepsTheOldOne) {
    writeFile(dumpName(), "old");
    ssh.results[kGet] = {1, "", "cat: No such file"};
    EXPECT_THAT(failure(), retrievalFailure(dumpFileFailure("cat: No such file")));
    EXPECT_EQ("old", readFile(dumpName()));
    EXPECT_THAT(sessionFiles(), ElementsAre("dump.xml"));
}

TEST_F(RetrieveDump, FailsWhenTheDumpCannotBeTakenWithSudo) {
    useSudo("");
    ssh.results[asRoot("chown user /agent/dump.xml")] = {1, "", "no such file"};
    EXPECT_THAT(failure(),
                retrievalFailure(isError("CantTakeFileOwnership",
                                         "Cannot take ownership of /agent/dump.xml: no such file")));
    EXPECT_THAT(ssh.lines(), Not(Contains(kGet)));
}

TEST_F(RetrieveDump, FailsForAnUnknownAgentWithoutAConnection) {
    cfg.agent_name = "unknown";
    EXPECT_THAT(failure(),
                retrievalFailure(isError(
                    "AgentNotFound", "Agent unknown was not found or does not contain proper spec file")));
    EXPECT_THAT(ssh.connections, IsEmpty());
}

TEST_F(RetrieveDump, FailsWhenItsStatusCannotBeSaved) {
    status.failingSaves = {2};
    EXPECT_THAT(failure(), retrievalFailure(isError("CantRenameFile", _)));
}

TEST_F(RetrieveDump, FailsWhenTheConnectionIsLost) {
    for (const std::string& line : {inAgentDir(kDumper), std::string(kGet)}) {
        ssh.results.clear();
        ssh.results[line].meanwhile = [] { throw Exc<&SshConnectionFault>("context", "file", 1); };
        EXPECT_THAT(failure(), retrievalFailure(isError("SshConnectionFault", _)));
    }
    EXPECT_THAT(sessionFiles(), IsEmpty());
}

TEST_F(RetrieveDump, LetsOtherExceptionsPass) {
    result(kDumper).meanwhile = [] { throw std::logic_error("another"); };
    EXPECT_THROW(action->execute(), std::logic_error);
}

TEST_F(RetrieveDump, ReplacesTheOldDumpOnlyByAWholeOne) {
    writeFile(dumpName(), "old");
    ssh.results[kGet].out = "new";
    ssh.results[kGet].meanwhile = [this] { EXPECT_EQ("old", readFile(dumpName())); };
    action->execute();
    EXPECT_EQ("new", readFile(dumpName()));
}

TEST_F(RetrieveDump, KeepsTheOldDumpOnAFullDisk) {
    writeFile(dumpName(), "old");
    ssh.results[kGet].out = "<dump/>";
    {
        const FileSizeLimit disk(4);
        EXPECT_THAT(failure(), retrievalFailure(isError("StreamWrite", "Cannot write data to the stream")));
    }
    EXPECT_EQ("old", readFile(dumpName()));
    EXPECT_THAT(sessionFiles(), ElementsAre("dump.xml"));
}

TEST_F(RetrieveDump, PutsNoDumpInPlaceOfALinkOrFifo) {
    writeFile(dir / "target", "old");
    fs::create_symlink(dir / "target", dumpName());
    EXPECT_THAT(failure(), retrievalFailure(isError("StreamWrite", "Cannot write data to the stream")));
    EXPECT_THAT(debugLog.texts,
                ElementsAre("dump.xml is not a regular file: Too many levels of symbolic links"));
    EXPECT_EQ("old", readFile(dir / "target"));
    EXPECT_TRUE(fs::is_symlink(dumpName()));
    fs::remove(dumpName());
    ASSERT_EQ(0, ::mkfifo(dumpName().c_str(), 0600));
    EXPECT_THAT(failure(), retrievalFailure(isError("StreamWrite", _)));
    EXPECT_TRUE(fs::is_fifo(dumpName()));
    EXPECT_THAT(ssh.lines(), Not(Contains(kGet)));
}

TEST_F(RetrieveDump, FailsWithoutItsSessionDirectory) {
    result(kDumper).meanwhile = [this] { fs::remove_all(dir / "session"); };
    EXPECT_THAT(failure(), retrievalFailure(isError("StreamWrite", _)));
    ASSERT_EQ(1U, debugLog.texts.size());
    EXPECT_THAT(debugLog.texts[0], HasSubstr("No such file or directory"));
}

TEST_F(RetrieveDump, SweepsAwayWhatAKilledRunLeft) {
    writeFile(inSession(".incoming-17-01234567-89ab-4cde-8f01-23456789abcd"), "half");
    action->execute();
    EXPECT_THAT(sessionFiles(), ElementsAre("dump-name", "dump.xml"));
}

TEST_F(RetrieveDump, PassesTheFailureOfTheNameRecordOnAsItIs) {
    fs::create_directory(inSession("dump-name"));
    EXPECT_THAT(failure(), ElementsAre(isError("FileWrite", HasSubstr(inSession("dump-name")))));
    EXPECT_TRUE(fs::exists(dumpName()));
}

TEST_F(RetrieveDump, RecordsTheNameBelowTheSessionPathAsItWasGiven) {
    cfg.session_path = dir / "session/../session";
    action->execute();
    EXPECT_EQ(dumpName(), readFile(inSession("dump-name")));
}

TEST_F(RetrieveDump, RefreshesTheDumpingStatusOnlyWhileTheDumperRuns) {
    EXPECT_EQ(nullptr, pAction);
    result(kDumper).meanwhile = [this] {
        EXPECT_EQ(&*action, pAction);
        EXPECT_EQ(kRefreshIntervalSeconds, ::alarm(0));
        raise(SIGALRM);
        ssh.results["get /agent/dumping-status.xml " + inSession("dumping-status.xml.tmp")].out =
            "<dumping/>";
        ssh.open->serveAlarm();
        EXPECT_EQ("<dumping/>", readFile(inSession("dumping-status.xml")));
    };
    ssh.results[kGet].meanwhile = [this] {
        EXPECT_EQ(nullptr, pAction);
        raise(SIGALRM);
        ssh.open->serveAlarm();
    };
    action->execute();
    EXPECT_EQ(3U, ssh.commands.size());
}

TEST_F(RetrieveDump, EndsTheRefreshAfterAFailureToo) {
    result(kDumper).status = 1;
    failure();
    EXPECT_EQ(nullptr, pAction);
    result(kDumper).meanwhile = [] { throw Exc<&SshConnectionFault>("context", "file", 1); };
    failure();
    EXPECT_EQ(nullptr, pAction);
}

TEST_F(RetrieveDump, TellsWhichComponentHasFailed) {
    result(kDumper).status = 1;
    for (const test::ErrorRecord& error : failure()) {
        EXPECT_EQ("./actions", error.file);
    }
}

}  // namespace
}  // namespace korva
