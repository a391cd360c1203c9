// SPDX-License-Identifier: Apache-2.0
#include "tallowick/send_agent.h"

#include "agents/agent_spec.h"
#include "commons/stream_errors.h"
#include "fakes/fake_accounts.h"
#include "ssh/libssh2pp.h"
#include "support/captured_log.h"
#include "support/file_size_limit.h"
#include "support/thrown_errors.h"
#include "unit/tallowick/agent_fixture.h"

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
using test::errorsOf;
using test::FakePanelAccount;
using test::FileSizeLimit;
using test::isError;
using test::LogRecord;
using test::readFile;
using test::writeFile;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class SendAgent : public test::AgentFixture {
  protected:
    SendAgent() {
        fs::create_directory(shared);
        action.setConfig(&cfg);
        status.calls.clear();
    }

    std::string inShared(const std::string& name) const { return shared + "/" + name; }
    std::string inAgent(const std::string& name) const {
        return agentsDir + "/" + cfg.agent_name + "/" + name;
    }
    static std::vector<std::string> mkdir(const std::string& path) {
        return {inAgentDir("mkdir -p " + path), inAgentDir("chown user " + path)};
    }
    static std::string put(const std::string& remote, const std::string& local) {
        return "put " + remote + " " + local;
    }
    static std::string statusRequest(const std::string& interpreterAndEntry) {
        return inAgentDir("sh -c " + sh_quote("cd /agent && " + interpreterAndEntry + " --get-status"));
    }
    void expectRefusedAnswer() {
        ssh.results[statusRequest("perl /agent/run.pl")].out = "<status/>";
        EXPECT_THROW(action.execute(), Exc<&StreamWrite>);
    }
    std::string answerName() const { return inSession("agent-deployment.status"); }
    test::FakeResult& answer() { return ssh.results[statusRequest("perl /agent/run.pl")]; }

    const std::string shared = agentsDir + "/shared";
    SendAgentAction action;
};

TEST_F(SendAgent, CopiesTheSharedFilesThenThoseOfTheAgentAndAsksForItsStatus) {
    fs::create_directory(inShared("lib"));
    writeFile(inShared("lib/common.pm"), "common");
    writeFile(inAgent("run.pl"), "the agent");
    action.execute();
    std::vector<std::string> expected = mkdir("/agent");
    for (const std::string& line : mkdir("/agent/lib")) {
        expected.push_back(line);
    }
    expected.push_back(put("/agent/lib/common.pm", inShared("lib/common.pm")));
    for (const std::string& line : mkdir("/agent")) {
        expected.push_back(line);
    }
    expected.push_back(put("/agent/run.pl", inAgent("run.pl")));
    expected.emplace_back(
        "sh -c cd\\ /agent\\;\\ sh\\ -c\\ cd\\\\\\ /agent\\\\\\ \\\\\\&\\\\\\&\\\\\\ perl\\\\\\ "
        "/agent/run.pl\\\\\\ --get-status");
    EXPECT_THAT(ssh.lines(), ElementsAreArray(expected));
    EXPECT_EQ("common", ssh.commands[4].input);
    EXPECT_EQ("the agent", ssh.commands[7].input);
    EXPECT_EQ("", ssh.commands[8].input);
    EXPECT_FALSE(ssh.commands[8].quietOutput);
    EXPECT_FALSE(ssh.commands[8].quietInput);
}

TEST_F(SendAgent, ReplacesASharedFileByTheAgentsOfTheSameName) {
    writeFile(inShared("config"), "shared");
    writeFile(inAgent("config"), "the agent's");
    action.execute();
    std::vector<std::string> inputs;
    for (const auto& command : ssh.commands) {
        if (command.line.starts_with("put /agent/config ")) {
            inputs.push_back(command.input);
        }
    }
    EXPECT_THAT(inputs, ElementsAre("shared", "the agent's"));
}

TEST_F(SendAgent, LeavesOutControlRightBelowEitherTreeAndNowhereElse) {
    for (const std::string& tree : {shared, agentsDir + "/plain"}) {
        fs::create_directories(tree + "/control/below");
        writeFile(tree + "/control/file", "");
        fs::create_directories(tree + "/deeper/control");
        writeFile(tree + "/deeper/control/file", "");
    }
    action.execute();
    const std::vector<std::string> lines = ssh.lines();
    EXPECT_THAT(lines, Not(Contains(HasSubstr("/agent/control"))));
    EXPECT_EQ(2, std::count(lines.begin(), lines.end(), inAgentDir("mkdir -p /agent/deeper/control")));
    EXPECT_THAT(lines, Contains(put("/agent/deeper/control/file", inShared("deeper/control/file"))));
    EXPECT_THAT(lines, Contains(put("/agent/deeper/control/file", inAgent("deeper/control/file"))));
}

TEST_F(SendAgent, LeavesOutControlAlsoOfAnAgentNamedWithASlash) {
    cfg.agent_name = "plain/";
    action.execute();
    EXPECT_THAT(ssh.lines(), Not(Contains(HasSubstr("/agent/control"))));
}

TEST_F(SendAgent, CopiesAFileThatIsNamedControl) {
    writeFile(inShared("control"), "");
    action.execute();
    EXPECT_THAT(ssh.lines(), Contains(put("/agent/control", inShared("control"))));
}

TEST_F(SendAgent, QuotesNames) {
    fs::create_directory(inShared("a b"));
    writeFile(inShared("a b/c'd"), "");
    action.execute();
    EXPECT_THAT(ssh.lines(), Contains(inAgentDir("mkdir -p /agent/a\\ b")));
    EXPECT_THAT(ssh.lines(), Contains(put("/agent/a b/c'd", inShared("a b/c'd"))));
}

TEST_F(SendAgent, TellsItsProgress) {
    answer().meanwhile = [this] {
        EXPECT_THAT(status.calls, ElementsAre("agent params source.example", "agent operation 0", "save",
                                              "agent operation 1", "save"));
    };
    action.execute();
    EXPECT_EQ(5U, status.calls.size());
}

TEST_F(SendAgent, LogsEachCopyAndEachDirectory) {
    fs::create_directory(inShared("lib"));
    writeFile(inShared("lib/x"), "");
    const CapturedLog log;
    action.execute();
    const auto record = [](log4cpp::Priority::Value priority, const std::string& message) {
        return LogRecord{"k.SendAgentAction", priority, message};
    };
    std::vector<LogRecord> records;
    for (const LogRecord& each : log.records()) {
        if (each.category == "k.SendAgentAction") {
            records.push_back(each);
        }
    }
    EXPECT_THAT(records,
                ElementsAre(record(log4cpp::Priority::NOTICE, "Copying agent plain to the remote host."),
                            record(log4cpp::Priority::INFO, "remote mkdir /agent"),
                            record(log4cpp::Priority::INFO, "remote mkdir /agent/lib"),
                            record(log4cpp::Priority::INFO,
                                   "remote <copy /agent/lib/x (from " + inShared("lib/x") + ")"),
                            record(log4cpp::Priority::INFO, "remote mkdir /agent"),
                            record(log4cpp::Priority::NOTICE, "Getting agent deployment status")));
}

TEST_F(SendAgent, AsksAnAgentForItsStatusWithItsOwnInterpreter) {
    cfg.agent_name = "snake";
    action.execute();
    EXPECT_EQ(statusRequest("python3 /agent/run.py"), ssh.commands.back().line);
}

TEST_F(SendAgent, MakesDirectoriesAndAsksAsRootWithSudoButUploadsAsTheLoginUser) {
    useSudo("sudo word");
    writeFile(inAgent("run.pl"), "the agent");
    action.execute();
    std::vector<std::string> lines = ssh.lines();
    ASSERT_EQ(8U, lines.size());
    EXPECT_EQ(asRoot("mkdir -p /agent"), lines[2]);
    EXPECT_EQ(asRoot("chown user /agent"), lines[3]);
    EXPECT_EQ(put("/agent/run.pl", inAgent("run.pl")), lines[6]);
    EXPECT_EQ(asRoot("sh -c " + sh_quote("cd /agent && perl /agent/run.pl --get-status")), lines[7]);
    EXPECT_EQ("sudo word\n", ssh.commands[7].input);
}

TEST_F(SendAgent, KeepsTheAnswerForThePanel) {
    writeFile(answerName(), "something much longer than the answer");
    answer() = {0, "<status/>", "warnings"};
    const FakePanelAccount panel(4711, 4712);
    action.execute();
    EXPECT_EQ("<status/>", readFile(answerName()));
    struct stat owner {};
    ASSERT_EQ(0, ::stat(answerName().c_str(), &owner));
    EXPECT_EQ(4711U, owner.st_uid);
    EXPECT_EQ(4712U, owner.st_gid);
}

TEST_F(SendAgent, SucceedsWithoutThePanelsAccount) {
    EXPECT_NO_THROW(action.execute());
    EXPECT_EQ("", readFile(answerName()));
}

TEST_F(SendAgent, KeepsTheAnswerAndTheOwnerOfItsFileWhenTheRequestFails) {
    writeFile(answerName(), "old");
    ASSERT_EQ(0, ::chown(answerName().c_str(), 1001, 1002));
    answer() = {2, "<partial", "died at line 1."};
    const FakePanelAccount panel(4711, 4712);
    EXPECT_THAT(errorsOf([this] { action.execute(); }),
                ElementsAre(isError("CantRequestAgentStatus",
                                    "Cannot request remote agent status using command line /agent/run.pl: "
                                    "died at line 1.")));
    EXPECT_EQ("<partial", readFile(answerName()));
    struct stat owner {};
    ASSERT_EQ(0, ::stat(answerName().c_str(), &owner));
    EXPECT_EQ(1001U, owner.st_uid);
    EXPECT_EQ(1002U, owner.st_gid);
}

TEST_F(SendAgent, WritesTheAnswerThroughNoLink) {
    writeFile(dir / "target", "old");
    fs::create_symlink(dir / "target", answerName());
    expectRefusedAnswer();
    EXPECT_EQ("old", readFile(dir / "target"));
    EXPECT_TRUE(fs::is_symlink(answerName()));
}

TEST_F(SendAgent, WaitsForNobodyAtAFifoInPlaceOfTheAnswer) {
    ASSERT_EQ(0, ::mkfifo(answerName().c_str(), 0600));
    expectRefusedAnswer();
    EXPECT_TRUE(fs::is_fifo(answerName()));
}

TEST_F(SendAgent, FailsOnAFullDisk) {
    const FileSizeLimit disk(4);
    expectRefusedAnswer();
}

TEST_F(SendAgent, FailsWithoutSharedFilesBeforeAnythingIsCopied) {
    fs::remove_all(shared);
    const auto errors = errorsOf([this] { action.execute(); });
    EXPECT_THAT(errors,
                ElementsAre(isError("NoSharedAgentsDirectory", "'shared' agents directory not found")));
    EXPECT_EQ("./send_agent", errors.at(0).file);
    EXPECT_THAT(ssh.connections, IsEmpty());
    EXPECT_THAT(status.calls, ElementsAre("agent params source.example", "agent operation 0", "save"));
    fs::create_symlink("missing", shared);
    EXPECT_THROW(action.execute(), Exc<&NoSharedAgentsDirectory>);
}

TEST_F(SendAgent, FailsWhenItsTreeCannotBeRead) {
    fs::create_directory(inShared("gone"));
    ssh.results[inAgentDir("chown user /agent/gone")].meanwhile = [this] { fs::remove(inShared("gone")); };
    const CapturedLog log;
    EXPECT_THAT(errorsOf([this] { action.execute(); }),
                ElementsAre(isError("StreamRead", "Cannot read data from the stream")));
    EXPECT_THAT(log.text(), HasSubstr("Cannot read " + shared + ": "));
}

TEST_F(SendAgent, LooksForAnAgentBelowTheAgentsDirectoryOnly) {
    cfg.agent_name = agentsDir + "/plain";
    EXPECT_THAT(errorsOf([this] { action.execute(); }),
                ElementsAre(isError("NoAgentDirectory", "Directory for agent '" + agentsDir + "/" +
                                                            agentsDir + "/plain' does not exist")));
}

TEST_F(SendAgent, FailsWithoutTheAgentAfterTheSharedFilesWereCopied) {
    writeFile(inShared("file"), "");
    cfg.agent_name = "missing";
    EXPECT_THAT(errorsOf([this] { action.execute(); }),
                ElementsAre(isError("NoAgentDirectory",
                                    "Directory for agent '" + agentsDir + "/missing' does not exist")));
    EXPECT_EQ(put("/agent/file", inShared("file")), ssh.lines().back());
    EXPECT_FALSE(fs::exists(answerName()));
}

TEST_F(SendAgent, TakesTheDirectoryOfAllAgentsForAnAgentWithoutAName) {
    cfg.agent_name = "";
    fs::remove_all(shared);
    fs::create_directory(shared);
    EXPECT_THROW(action.execute(), Exc<&AgentNotFound>);
    EXPECT_THAT(ssh.lines(), Contains(inAgentDir("mkdir -p /agent/plain")));
}

TEST_F(SendAgent, FailsForAnAgentWithoutASpecFileAfterItsFilesWereCopied) {
    fs::create_directory(agentsDir + "/bare");
    writeFile(agentsDir + "/bare/file", "");
    cfg.agent_name = "bare";
    EXPECT_THROW(action.execute(), Exc<&AgentNotFound>);
    EXPECT_EQ(put("/agent/file", agentsDir + "/bare/file"), ssh.lines().back());
}

TEST_F(SendAgent, FailsWhenADirectoryCannotBeMade) {
    result("mkdir -p /agent") = {1, "", "mkdir: refused"};
    const auto errors = errorsOf([this] { action.execute(); });
    EXPECT_THAT(errors, ElementsAre(isError("CantCreateAgentDirectory",
                                            "Can't create agent directory /agent on the remote host: "
                                            "mkdir: refused")));
    EXPECT_EQ("./send_agent", errors.at(0).file);
    EXPECT_EQ(1U, ssh.commands.size());
}

TEST_F(SendAgent, FailsWhenADirectoryCannotBeGivenToTheLoginUser) {
    result("chown user /agent") = {1, "", "chown: refused"};
    EXPECT_THAT(errorsOf([this] { action.execute(); }),
                ElementsAre(isError("CantCreateAgentDirectory",
                                    "Can't create agent directory /agent on the remote host: "
                                    "chown: refused")));
    EXPECT_EQ(2U, ssh.commands.size());
}

TEST_F(SendAgent, PassesTheFailureOfAnUploadOn) {
    writeFile(inShared("file"), "");
    ssh.results[put("/agent/file", inShared("file"))].meanwhile = [] {
        throw Exc<&SshConnectionFault>("context", "file", 1);
    };
    EXPECT_THROW(action.execute(), Exc<&SshConnectionFault>);
}

}  // namespace
}  // namespace korva
