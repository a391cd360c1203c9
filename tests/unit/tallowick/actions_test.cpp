// SPDX-License-Identifier: Apache-2.0
#include "tallowick/actions.h"

#include "commons/handle.h"
#include "commons/socket.h"
#include "commons/termination.h"
#include "support/captured_stream.h"
#include "support/thrown_errors.h"
#include "unit/tallowick/action_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace korva {
namespace {

using test::ActionFixture;
using test::CapturedStream;
using test::errorsOf;
using test::FakeSsh;
using test::isError;
using testing::ElementsAre;
using testing::IsEmpty;

/// Lets a test call what concrete actions are made of.
class OpenAction : public Action {
  public:
    explicit OpenAction(bool withStatus = false) : Action(withStatus) {}
    void execute() override {}
    using Action::checkSudoPresence;
    using Action::dumpingStatusPath;
    using Action::execRoot;
    using Action::execUser;
    using Action::getSsh;
    using Action::requireSudoCommand;
    using Action::requireSudoRights;
    using Action::takeFile;
};

class ActionTest : public ActionFixture {
  protected:
    ActionTest() { action.setConfig(&cfg); }

    int userWithInput(const std::string& command, const std::string& input) {
        std::istringstream in(input);
        return action.execUser(command, in, out, err, true, false);
    }
    int rootWithInput(const std::string& command, const std::string& input, bool quietOutput = true,
                      bool quietInput = false) {
        std::istringstream in(input);
        return action.execRoot(command, in, out, err, quietOutput, quietInput);
    }
    void useSudo(const std::string& password) {
        cfg.sudo = true;
        cfg.sudo_password_provided = true;
        cfg.sudo_password = password;
    }
    template <auto Tag>
    std::string messageOfSudoCheck() {
        try {
            action.checkSudoPresence();
        } catch (const Exc<Tag>& error) {
            EXPECT_EQ(nullptr, error.inner());
            return error.what();
        }
        return "no error";
    }

    OpenAction action;
    std::ostringstream out;
    std::ostringstream err;
};

using ActionConnection = ActionTest;

TEST_F(ActionConnection, IsMadeOnFirstUseAndKept) {
    EXPECT_THAT(ssh.connections, IsEmpty());
    Ssh* const first = action.getSsh();
    EXPECT_EQ(first, action.getSsh());
    ASSERT_EQ(1U, ssh.connections.size());
    EXPECT_EQ("source.example", ssh.connections[0].host);
    EXPECT_EQ("user", ssh.connections[0].login);
    EXPECT_EQ("login word", ssh.connections[0].password);
    EXPECT_FALSE(ssh.connections[0].noEncryption);
}

TEST_F(ActionConnection, GoesToPort22WhenNoneWasGiven) {
    action.getSsh();
    EXPECT_EQ(22, ssh.connections[0].port);
}

TEST_F(ActionConnection, GoesToTheGivenPort) {
    cfg.port = 65535;
    action.getSsh();
    EXPECT_EQ(65535, ssh.connections[0].port);
}

TEST_F(ActionConnection, AsksForNoEncryptionWhenItWasAskedFor) {
    cfg.no_encryption = true;
    action.getSsh();
    EXPECT_TRUE(ssh.connections[0].noEncryption);
}

TEST_F(ActionConnection, KnowsBothPasswordsAsSecrets) {
    useSudo("sudo secret");
    EXPECT_EQ("<********> <********>", action.getSsh()->secrets().mask("<login word> <sudo secret>"));
}

TEST_F(ActionConnection, PassesItsErrorsOnAndIsTriedAnewNextTime) {
    ssh.onConnect = [] { throw Exc<&ConnectionRefused>("context", "file", 1) % "source.example"; };
    EXPECT_THROW(action.getSsh(), Exc<&ConnectionRefused>);
    ssh.onConnect = [] {};
    EXPECT_NE(nullptr, action.getSsh());
}

TEST_F(ActionConnection, IsMadeWithTicksHeldBack) {
    ssh.onConnect = [] {
        sigset_t mask;
        sigprocmask(SIG_BLOCK, nullptr, &mask);
        EXPECT_EQ(1, sigismember(&mask, SIGALRM));
    };
    action.getSsh();
}

using ExecUser = ActionTest;

TEST_F(ExecUser, RunsTheCommandInTheAgentDirectory) {
    cfg.agent_dir = "agents/my agent";
    ssh.results["sh -c cd\\ agents/my\\ agent\\;\\ perl\\ x.pl"] = {7, "the output", "the error"};
    EXPECT_EQ(7, userWithInput("perl x.pl", "the input"));
    EXPECT_THAT(ssh.lines(), ElementsAre("sh -c cd\\ agents/my\\ agent\\;\\ perl\\ x.pl"));
    EXPECT_EQ("the input", ssh.commands[0].input);
    EXPECT_EQ("the output", out.str());
    EXPECT_EQ("the error", err.str());
}

TEST_F(ExecUser, PassesItsSwitchesOn) {
    for (const bool quietOutput : {false, true}) {
        for (const bool quietInput : {false, true}) {
            std::istringstream in;
            action.execUser("true", in, out, err, quietOutput, quietInput);
            EXPECT_EQ(quietOutput, ssh.commands.back().quietOutput);
            EXPECT_EQ(quietInput, ssh.commands.back().quietInput);
        }
        action.execUser("true", out, err, quietOutput);
        EXPECT_EQ(quietOutput, ssh.commands.back().quietOutput);
    }
}

TEST_F(ExecUser, HasAFormWithoutInput) {
    EXPECT_EQ(0, action.execUser("true", out, err, false));
    EXPECT_THAT(ssh.lines(), ElementsAre("sh -c cd\\ /agent\\;\\ true"));
    EXPECT_EQ("", ssh.commands[0].input);
}

using ExecRoot = ActionTest;

TEST_F(ExecRoot, SendsExactlyWhatExecUserSendsWithoutTheSudoFlag) {
    cfg.sudo_password = "unused";
    rootWithInput("rm -rf x", "the input");
    userWithInput("rm -rf x", "the input");
    action.execRoot("true", out, err, false);
    action.execUser("true", out, err, false);
    ASSERT_EQ(4U, ssh.commands.size());
    for (const std::size_t first : {0U, 2U}) {
        EXPECT_EQ(ssh.commands[first].line, ssh.commands[first + 1].line);
        EXPECT_EQ(ssh.commands[first].input, ssh.commands[first + 1].input);
        EXPECT_EQ(ssh.commands[first].quietOutput, ssh.commands[first + 1].quietOutput);
        EXPECT_EQ(ssh.commands[first].quietInput, ssh.commands[first + 1].quietInput);
    }
}

TEST_F(ExecRoot, RunsThroughSudoWithThePasswordOnTheFirstLineOfTheInput) {
    useSudo("sudo word");
    EXPECT_EQ(0, rootWithInput("perl", "line 1\nline 2", false, true));
    EXPECT_THAT(ssh.lines(),
                ElementsAre("sudo -V", "sudo -k; sudo -S -p ' ' true",
                            "sh -c cd\\ /agent\\;\\ sudo\\ -k\\;\\ sudo\\ -S\\ -p\\ \\'\\ \\'\\ perl"));
    EXPECT_EQ("sudo word\nline 1\nline 2", ssh.commands[2].input);
    EXPECT_FALSE(ssh.commands[2].quietOutput);
    EXPECT_TRUE(ssh.commands[2].quietInput);
}

TEST_F(ExecRoot, StillUsesSudoWithAnEmptyPasswordButGivesTheInputNoPasswordLine) {
    useSudo("");
    rootWithInput("perl", "the input");
    EXPECT_EQ("sh -c cd\\ /agent\\;\\ sudo\\ -k\\;\\ sudo\\ -S\\ -p\\ \\'\\ \\'\\ perl",
              ssh.commands.back().line);
    EXPECT_EQ("the input", ssh.commands.back().input);
}

TEST_F(ExecRoot, GivesThePasswordLineToACommandWithoutInput) {
    useSudo("sudo word");
    action.execRoot("true", out, err, false);
    EXPECT_EQ("sudo word\n", ssh.commands.back().input);
    EXPECT_FALSE(ssh.commands.back().quietInput);
}

TEST_F(ExecRoot, ReturnsTheStatusAndTheOutputOfTheCommand) {
    useSudo("sudo word");
    ssh.results["sh -c cd\\ /agent\\;\\ sudo\\ -k\\;\\ sudo\\ -S\\ -p\\ \\'\\ \\'\\ perl"] = {5, "output",
                                                                                              "error"};
    EXPECT_EQ(5, rootWithInput("perl", ""));
    EXPECT_EQ("output", out.str());
    EXPECT_EQ("error", err.str());
}

using SudoCheck = ActionTest;

TEST_F(SudoCheck, AsksTheSourceHostForSudoAndForTheRightToUseIt) {
    useSudo("sudo word");
    action.checkSudoPresence();
    ASSERT_EQ(2U, ssh.commands.size());
    EXPECT_EQ("sudo -V", ssh.commands[0].line);
    EXPECT_EQ("", ssh.commands[0].input);
    EXPECT_EQ("sudo -k; sudo -S -p ' ' true", ssh.commands[1].line);
    EXPECT_EQ("sudo word", ssh.commands[1].input);
    EXPECT_FALSE(ssh.commands[1].quietOutput);
    EXPECT_FALSE(ssh.commands[1].quietInput);
}

TEST_F(SudoCheck, TakesPlaceOnlyOnceInAnAction) {
    useSudo("sudo word");
    rootWithInput("first", "");
    rootWithInput("second", "");
    action.takeFile("file");
    EXPECT_EQ(2 + 3, static_cast<int>(ssh.commands.size()));
}

TEST_F(SudoCheck, TakesPlaceAgainAfterAFailure) {
    useSudo("sudo word");
    ssh.results["sudo -V"] = {127, "", ""};
    EXPECT_THROW(action.checkSudoPresence(), Exc<&SudoNotFound>);
    ssh.results.clear();
    action.checkSudoPresence();
    EXPECT_THAT(ssh.lines(), ElementsAre("sudo -V", "sudo -V", "sudo -k; sudo -S -p ' ' true"));
}

TEST_F(SudoCheck, FailsWithAnyStatusOfSudoVersionOnAHostWithoutSudo) {
    useSudo("sudo word");
    for (const int exitStatus : {127, 1, 126, 255}) {
        ssh.results["sudo -V"] = {exitStatus, "", "sh: sudo: not found\n"};
        EXPECT_EQ(
            "sudo command not found on the host source.example. You should install sudo to this host or "
            "supply root password for the migration.",
            messageOfSudoCheck<&SudoNotFound>());
    }
}

TEST_F(SudoCheck, FailsWithAWrongPasswordOrALoginThatMayNotUseSudo) {
    useSudo("sudo word");
    for (const int exitStatus : {1, 2, 127, 255}) {
        ssh.results["sudo -k; sudo -S -p ' ' true"] = {exitStatus, "", "user is not in the sudoers file"};
        EXPECT_EQ("sudo is not allowed for user user on host source.example.",
                  messageOfSudoCheck<&SudoNotAllowed>());
    }
}

TEST_F(SudoCheck, TellsACommandThatIsMissingFromOneThatHasFailed) {
    ssh.results["sudo -V"] = {127, "", "sh: sudo: not found\n"};
    EXPECT_THAT(
        errorsOf([this] { action.requireSudoCommand(); }),
        ElementsAre(isError("SshCommandNotFound", "Command 'sudo -V' was not found on the remote host")));
    ssh.results["sudo -k; sudo -S -p ' ' true"] = {1, "", "Sorry, try again.\n"};
    EXPECT_THAT(errorsOf([this] { action.requireSudoRights(); }),
                ElementsAre(isError("SshUnknown",
                                    "Command 'sudo -k; sudo -S -p ' ' true' has failed on the "
                                    "remote host with return code 1")));
}

TEST_F(SudoCheck, PassesOtherErrorsOn) {
    useSudo("sudo word");
    ssh.results["sudo -V"].meanwhile = [] { throw Exc<&InvalidHandle>("context", "file", 1); };
    EXPECT_THROW(action.checkSudoPresence(), Exc<&InvalidHandle>);
    ssh.results["sudo -V"].meanwhile = [] {};
    ssh.results["sudo -k; sudo -S -p ' ' true"].meanwhile = [] {
        throw Exc<&InvalidHandle>("context", "file", 1);
    };
    EXPECT_THROW(action.checkSudoPresence(), Exc<&InvalidHandle>);
}

TEST_F(SudoCheck, KeepsACommandFromRunningWhenItFails) {
    useSudo("sudo word");
    ssh.results["sudo -k; sudo -S -p ' ' true"] = {1, "", ""};
    EXPECT_THROW(rootWithInput("rm -rf x", ""), Exc<&SudoNotAllowed>);
    EXPECT_EQ(2U, ssh.commands.size());
}

using TakeFile = ActionTest;

TEST_F(TakeFile, SendsNothingWithoutTheSudoFlag) {
    action.takeFile("/agent/dumping-status.xml");
    EXPECT_THAT(ssh.commands, IsEmpty());
    EXPECT_THAT(ssh.connections, IsEmpty());
}

TEST_F(TakeFile, GivesTheFileToTheLogin) {
    useSudo("sudo word");
    cfg.login = "my user";
    action.takeFile("a file");
    EXPECT_EQ(
        "sh -c cd\\ /agent\\;\\ sudo\\ -k\\;\\ sudo\\ -S\\ -p\\ \\'\\ \\'\\ "
        "chown\\ my\\\\\\ user\\ a\\\\\\ file",
        ssh.commands.back().line);
    EXPECT_EQ("sudo word\n", ssh.commands.back().input);
    EXPECT_FALSE(ssh.commands.back().quietOutput);
    EXPECT_FALSE(ssh.commands.back().quietInput);
}

TEST_F(TakeFile, FailsWithTheRemoteMessage) {
    useSudo("");
    ssh.results["sh -c cd\\ /agent\\;\\ sudo\\ -k\\;\\ sudo\\ -S\\ -p\\ \\'\\ \\'\\ chown\\ user\\ file"] = {
        1, "ignored", "chown: cannot access 'file'"};
    try {
        action.takeFile("file");
        FAIL() << "no error";
    } catch (const Exc<&CantTakeFileOwnership>& error) {
        EXPECT_STREQ("Cannot take ownership of file: chown: cannot access 'file'", error.what());
    }
}

TEST_F(ActionTest, FindsTheDumpingStatusInTheAgentDirectory) {
    cfg.agent_dir = "agents/a";
    EXPECT_EQ("agents/a/dumping-status.xml", action.dumpingStatusPath());
}

class ActionStatus : public ActionFixture {};

TEST_F(ActionStatus, IsIdleFromTheConstructionOnWithoutAConnection) {
    const OpenAction action(true);
    EXPECT_THAT(status.calls, ElementsAre("created", "idle", "save"));
    EXPECT_THAT(ssh.connections, IsEmpty());
}

TEST_F(ActionStatus, IsNotThereForActionsWithout) {
    {
        OpenAction action(false);
        action.finish();
    }
    EXPECT_THAT(status.calls, IsEmpty());
}

TEST_F(ActionStatus, IsLeftIdleByAnActionThatEnds) {
    { const OpenAction action(true); }
    EXPECT_THAT(status.calls, ElementsAre("created", "idle", "save", "idle", "save", "destroyed"));
}

TEST_F(ActionStatus, IsLeftIdleBeforeTheConnectionEnds) {
    {
        OpenAction action(true);
        action.setConfig(&cfg);
        action.getSsh();
        EXPECT_NE(nullptr, ssh.open);
        status.onDestroyed = [this] { EXPECT_NE(nullptr, ssh.open); };
    }
    EXPECT_EQ(nullptr, ssh.open);
}

TEST_F(ActionStatus, IsSavedOnceAtTheEndOfARunThatWentWell) {
    {
        OpenAction action(true);
        action.finish();
        EXPECT_THAT(status.calls, ElementsAre("created", "idle", "save", "idle", "save", "destroyed"));
    }
    EXPECT_EQ(6U, status.calls.size());
}

TEST_F(ActionStatus, ThatCannotBeSavedAtTheStartEndsTheConstruction) {
    status.failingSaves = {1};
    EXPECT_THROW(OpenAction(true), Exc<&CantRenameFile>);
}

TEST_F(ActionStatus, ThatCannotBeSavedAfterSuccessIsAnErrorOnce) {
    status.failingSaves = {2, 3};
    const CapturedStream standardError(std::cerr);
    {
        OpenAction action(true);
        EXPECT_THROW(action.finish(), Exc<&CantRenameFile>);
    }
    EXPECT_EQ("", standardError.str());
    EXPECT_EQ("destroyed", status.calls.back());
    EXPECT_EQ(6U, status.calls.size()) << "it is not saved again";
}

TEST_F(ActionStatus, ThatCannotBeSavedAfterAFailureIsToldAndNothingElse) {
    status.failingSaves = {2};
    const CapturedStream standardError(std::cerr);
    { const OpenAction action(true); }
    const std::string message = "Cannot rename migration.status.tmp to migration.status: the reason";
    EXPECT_EQ(message, standardError.str());
    EXPECT_THAT(debugLog.errors, ElementsAre(message));
}

}  // namespace
}  // namespace korva
