// SPDX-License-Identifier: Apache-2.0
#include "commons/stream_errors.h"
#include "ssh/libssh2pp.h"
#include "support/captured_stream.h"
#include "support/file_size_limit.h"
#include "support/files.h"
#include "support/product_dir.h"
#include "support/thrown_errors.h"
#include "tallowick/actions.h"
#include "unit/tallowick/action_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>

namespace korva {
namespace {

using test::ActionFixture;
using test::CapturedStream;
using test::errorsOf;
using test::FileSizeLimit;
using test::isError;
using test::productDir;
using test::readFile;
using test::writeFile;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kPerl = "sh -c cd\\ /agent\\;\\ perl";
constexpr const char* kSudoPerl = "sh -c cd\\ /agent\\;\\ sudo\\ -k\\;\\ sudo\\ -S\\ -p\\ \\'\\ \\'\\ perl";

class SendScout : public ActionFixture {
  protected:
    SendScout() {
        writeFile(scoutName(), "print 'scouting';\n");
        action.setConfig(&cfg);
        status.calls.clear();
    }
    static std::string scoutName() { return productDir() + "/scout.pl"; }
    std::string reportName() const { return dir / "session/scout-result.xml"; }

    SendScoutAction action;
};

TEST_F(SendScout, RunsTheScriptOnTheSourceHostAndKeepsItsReport) {
    ssh.results[kPerl] = {0, "<report/>", "warnings"};
    action.execute();
    EXPECT_THAT(ssh.lines(), ElementsAre(kPerl));
    EXPECT_EQ("print 'scouting';\n", ssh.commands[0].input);
    EXPECT_FALSE(ssh.commands[0].quietOutput);
    EXPECT_TRUE(ssh.commands[0].quietInput);
    EXPECT_EQ("<report/>", readFile(reportName()));
}

TEST_F(SendScout, RunsInTheHomeDirectoryOfALoginThatHasNoAgentDirectory) {
    cfg.agent_dir = "";
    action.execute();
    EXPECT_THAT(ssh.lines(), ElementsAre("sh -c cd\\ \\;\\ perl"));
}

TEST_F(SendScout, TellsItsProgress) {
    ssh.results[kPerl].meanwhile = [this] {
        EXPECT_THAT(status.calls, ElementsAre("agent params source.example", "agent operation 0", "save"));
    };
    action.execute();
    EXPECT_THAT(status.calls, ElementsAre("agent params source.example", "agent operation 0", "save",
                                          "agent operation 1", "save"));
}

TEST_F(SendScout, SendsTheScriptBehindThePasswordLineWithSudo) {
    cfg.sudo = true;
    cfg.sudo_password = "sudo word";
    action.execute();
    EXPECT_EQ(kSudoPerl, ssh.commands.back().line);
    EXPECT_EQ("sudo word\nprint 'scouting';\n", ssh.commands.back().input);
    EXPECT_TRUE(ssh.commands.back().quietInput);
}

TEST_F(SendScout, ReplacesAnEarlierReport) {
    writeFile(reportName(), "something much longer than the new report");
    ssh.results[kPerl].out = "new";
    action.execute();
    EXPECT_EQ("new", readFile(reportName()));
}

TEST_F(SendScout, FailsWithTheStatusAndTheErrorOutputOfTheScript) {
    ssh.results[kPerl] = {9, "<partial", "died at line 1."};
    try {
        action.execute();
        FAIL() << "no error";
    } catch (const Exc<&FailedToExecuteScout>& error) {
        EXPECT_STREQ(
            "Failed to execute scout. \nThe return code is 9\nThe output on STDERR is\ndied at line 1.",
            error.what());
    }
    EXPECT_EQ("<partial", readFile(reportName()));
    EXPECT_EQ("save", status.calls.back());
    EXPECT_EQ(3U, status.calls.size());
}

TEST_F(SendScout, FailsWithoutAScriptBeforeItConnects) {
    std::filesystem::remove(scoutName());
    try {
        action.execute();
        FAIL() << "no error";
    } catch (const Exc<&UnableToOpenScoutFile>& error) {
        EXPECT_STREQ("Unable to open %1% for transferring to the remote host", error.what());
    }
    EXPECT_THAT(ssh.connections, IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(reportName()));
}

TEST_F(SendScout, FailsWithADirectoryInPlaceOfTheScript) {
    std::filesystem::remove(scoutName());
    std::filesystem::create_directory(scoutName());
    EXPECT_THROW(action.execute(), Exc<&UnableToOpenScoutFile>);
    std::filesystem::remove(scoutName());
}

TEST_F(SendScout, FailsWhenTheReportCannotBeWrittenEvenIfItIsEmpty) {
    std::filesystem::create_directory(reportName());
    EXPECT_THROW(action.execute(), Exc<&StreamWrite>);
}

TEST_F(SendScout, FailsOnAFullDiskEvenWithTheLastFewBytes) {
    ssh.results[kPerl].out = "small";
    const FileSizeLimit disk(4);
    EXPECT_THROW(action.execute(), Exc<&StreamWrite>);
}

TEST_F(SendScout, WritesThroughNoLinkInPlaceOfTheReport) {
    writeFile(dir / "target", "old");
    std::filesystem::create_symlink(dir / "target", reportName());
    ssh.results[kPerl].out = "<report/>";
    EXPECT_THROW(action.execute(), Exc<&StreamWrite>);
    EXPECT_EQ("old", readFile(dir / "target"));
    EXPECT_TRUE(std::filesystem::is_symlink(reportName()));
}

TEST_F(SendScout, WaitsForNobodyAtAFifoInPlaceOfTheReport) {
    ASSERT_EQ(0, ::mkfifo(reportName().c_str(), 0600));
    EXPECT_THROW(action.execute(), Exc<&StreamWrite>);
    EXPECT_TRUE(std::filesystem::is_fifo(reportName()));
}

TEST_F(SendScout, WaitsForNobodyAtAFifoInPlaceOfTheScript) {
    std::filesystem::remove(scoutName());
    ASSERT_EQ(0, ::mkfifo(scoutName().c_str(), 0600));
    EXPECT_THROW(action.execute(), Exc<&UnableToOpenScoutFile>);
    std::filesystem::remove(scoutName());
}

class GetDumpingStatus : public ActionFixture {
  protected:
    GetDumpingStatus() {
        action.setConfig(&cfg);
        status.calls.clear();
    }
    static constexpr const char* kGet = "get /agent/dumping-status.xml";

    GetDumpingStatusAction action;
    CapturedStream standardOutput{std::cout};
};

TEST_F(GetDumpingStatus, PrintsTheRemoteFile) {
    ssh.results[kGet].out = "<dumping-status/>";
    action.execute();
    EXPECT_EQ("<dumping-status/>", standardOutput.str());
    EXPECT_THAT(ssh.lines(), ElementsAre(kGet));
    EXPECT_THAT(status.calls, ElementsAre("agent params source.example", "agent operation 1", "save"));
}

TEST_F(GetDumpingStatus, TakesTheFileFirstWithSudo) {
    cfg.sudo = true;
    action.execute();
    EXPECT_THAT(ssh.lines(), ElementsAre("sudo -V", "sudo -k; sudo -S -p ' ' true",
                                         "sh -c cd\\ /agent\\;\\ sudo\\ -k\\;\\ sudo\\ -S\\ -p\\ \\'\\ \\'\\ "
                                         "chown\\ user\\ /agent/dumping-status.xml",
                                         kGet));
}

TEST_F(GetDumpingStatus, PrintsNothingAndSucceedsWhenTheRemoteFileIsMissing) {
    ssh.results[kGet] = {1, "", "cat: No such file"};
    action.execute();
    EXPECT_EQ("", standardOutput.str());
    ASSERT_EQ(1U, debugLog.texts.size());
    EXPECT_THAT(debugLog.texts[0], HasSubstr("cat: No such file"));
}

TEST_F(GetDumpingStatus, FailsWhenTheCommandWasRefusedOrKilled) {
    for (const int result : {255, 137, 127}) {
        ssh.results[kGet] = {result, "", "the reason"};
        EXPECT_THAT(errorsOf([this] { action.execute(); }),
                    ElementsAre(isError("DumpStatusError", "Error during getting dumping status"),
                                isError("SshUnknown",
                                        "Command 'cat /agent/dumping-status.xml' has failed on the "
                                        "remote host with return code " +
                                            std::to_string(result))));
    }
}

TEST_F(GetDumpingStatus, FailsWithSudoWhenTheFileThatWasTakenCannotBeRead) {
    cfg.sudo = true;
    ssh.results[kGet] = {1, "", "the reason"};
    EXPECT_THROW(action.execute(), Exc<&DumpStatusError>);
    EXPECT_THAT(debugLog.texts, Contains(HasSubstr("the reason")));
}

TEST_F(GetDumpingStatus, WrapsTheErrorThatStoppedIt) {
    ssh.results[kGet].meanwhile = [] { throw Exc<&SshConnectionFault>("context", "file", 1); };
    try {
        action.execute();
        FAIL() << "no error";
    } catch (const Exc<&DumpStatusError>& error) {
        EXPECT_STREQ("Error during getting dumping status", error.what());
        ASSERT_NE(nullptr, error.inner());
        EXPECT_NE(nullptr, dynamic_cast<const Exc<&SshConnectionFault>*>(error.inner()));
    }
}

TEST_F(GetDumpingStatus, WrapsTheErrorOfItsStatusDocumentToo) {
    status.failingSaves = {2};
    EXPECT_THROW(action.execute(), Exc<&DumpStatusError>);
    EXPECT_THAT(ssh.commands, IsEmpty());
}

TEST_F(GetDumpingStatus, WrapsARefusedOwnershipWithSudo) {
    cfg.sudo = true;
    ssh.results
        ["sh -c cd\\ /agent\\;\\ sudo\\ -k\\;\\ sudo\\ -S\\ -p\\ \\'\\ \\'\\ "
         "chown\\ user\\ /agent/dumping-status.xml"] = {1, "", "no such file"};
    try {
        action.execute();
        FAIL() << "no error";
    } catch (const Exc<&DumpStatusError>& error) {
        ASSERT_NE(nullptr, error.inner());
        EXPECT_STREQ("Cannot take ownership of /agent/dumping-status.xml: no such file",
                     error.inner()->what());
    }
}

TEST_F(GetDumpingStatus, LetsOtherExceptionsPass) {
    ssh.results[kGet].meanwhile = [] { throw std::logic_error("another"); };
    EXPECT_THROW(action.execute(), std::logic_error);
}

class RemoveAgent : public ActionFixture {
  protected:
    RemoveAgent() { action.setConfig(&cfg); }
    RemoveAgentAction action;
};

TEST_F(RemoveAgent, RemovesTheAgentDirectoryFromWithin) {
    cfg.agent_dir = "my agent";
    action.execute();
    EXPECT_THAT(ssh.lines(), ElementsAre("sh -c cd\\ my\\ agent\\;\\ rm\\ -rf\\ my\\\\\\ agent"));
    EXPECT_EQ("", ssh.commands[0].input);
    EXPECT_FALSE(ssh.commands[0].quietOutput);
    EXPECT_FALSE(ssh.commands[0].quietInput);
}

TEST_F(RemoveAgent, RemovesItAsRootWithSudo) {
    cfg.sudo = true;
    cfg.sudo_password = "sudo word";
    action.execute();
    EXPECT_EQ("sh -c cd\\ /agent\\;\\ sudo\\ -k\\;\\ sudo\\ -S\\ -p\\ \\'\\ \\'\\ rm\\ -rf\\ /agent",
              ssh.commands.back().line);
    EXPECT_EQ("sudo word\n", ssh.commands.back().input);
}

TEST_F(RemoveAgent, KeepsNoStatusDocument) {
    action.execute();
    EXPECT_THAT(status.calls, IsEmpty());
}

TEST_F(RemoveAgent, SucceedsEvenWhenTheRemovalFails) {
    ssh.results["sh -c cd\\ /agent\\;\\ rm\\ -rf\\ /agent"] = {1, "", "rm: cannot remove"};
    EXPECT_NO_THROW(action.execute());
}

TEST_F(RemoveAgent, SucceedsEvenWithoutAConnection) {
    ssh.onConnect = [] { throw Exc<&SshInvalidCredentials>("context", "file", 1) % "source.example"; };
    EXPECT_NO_THROW(action.execute());
    EXPECT_EQ(1U, debugLog.errors.size());
}

TEST_F(RemoveAgent, LetsOtherExceptionsPass) {
    ssh.onConnect = [] { throw std::logic_error("another"); };
    EXPECT_THROW(action.execute(), std::logic_error);
}

class RemoveDumpingStatus : public ActionFixture {
  protected:
    RemoveDumpingStatus() { action.setConfig(&cfg); }
    RemoveDumpingStatusAction action;
};

TEST_F(RemoveDumpingStatus, RemovesTheFileOnThisHostWithoutAConnection) {
    cfg.agent_dir = dir.path();
    writeFile(dir / "dumping-status.xml", "status");
    action.execute();
    EXPECT_FALSE(std::filesystem::exists(dir / "dumping-status.xml"));
    EXPECT_THAT(ssh.connections, IsEmpty());
}

TEST_F(RemoveDumpingStatus, SucceedsEvenWhenNothingExistsAtThePath) {
    cfg.agent_dir = dir / "no such directory";
    EXPECT_NO_THROW(action.execute());
}

TEST_F(RemoveDumpingStatus, KeepsAStatusDocument) {
    EXPECT_THAT(status.calls, ElementsAre("created", "idle", "save"));
}

}  // namespace
}  // namespace korva
