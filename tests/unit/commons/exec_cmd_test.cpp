// SPDX-License-Identifier: Apache-2.0
#include "commons/ExecCmd.h"
#include "commons/system_error.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <pwd.h>

#include <cerrno>
#include <csignal>
#include <new>
#include <string>
#include <utility>

namespace korva {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

/// The message of the error that a command ends with.
std::string failureOf(ExecCmd& command) {
    try {
        command.exec();
    } catch (const Exc<&ExecCmd::Failed>& error) {
        return error.what();
    }
    return "no failure";
}

TEST(ExecCmd, ReturnsZeroAndKeepsTheOutputOfACommandThatExitsWithZero) {
    ExecCmd command("sh");
    command << "-c"
            << "echo out; echo err >&2";
    EXPECT_EQ(0, command.exec());
    EXPECT_EQ("out\n", command.getOutput());
    EXPECT_EQ("err\n", command.getError());
    EXPECT_EQ(0, command.getReturnCode());
}

TEST(ExecCmd, PassesTheProgramAsArgumentZero) {
    ExecCmd command("sh");
    command << "-c"
            << "echo $0; echo \"$1\""
            << "zero"
            << "one two";
    command.exec();
    EXPECT_EQ("zero\none two\n", command.getOutput());
}

TEST(ExecCmd, FeedsInputAndEnvironment) {
    ExecCmd command("sh");
    command << "-c"
            << "cat; echo $KORVA_X";
    command.setInput("in ");
    command.setEnv("KORVA_X", "old");
    command.setEnv("KORVA_X", "new");
    command.exec();
    EXPECT_EQ("in new\n", command.getOutput());
}

TEST(ExecCmd, RunsAsTheGivenAccount) {
    ExecCmd command("id");
    command << "-u";
    command.setUser("daemon");
    command.exec();
    EXPECT_EQ(std::to_string(::getpwnam("daemon")->pw_uid) + "\n", command.getOutput());
}

TEST(ExecCmd, KeepsTheIdentityForRootAndForANonexistentAccount) {
    for (const char* user : {"root", "no-such-account"}) {
        ExecCmd command("id");
        command << "-u";
        command.setUser(user);
        command.exec();
        EXPECT_EQ("0\n", command.getOutput()) << user;
    }
}

TEST(ExecCmd, RecordsThatItWasRun) {
    ExecCmd command("true");
    EXPECT_FALSE(command.isExecuted());
    EXPECT_EQ(0, command.getErrno());
    errno = EXDEV;  // a good run leaves errno alone or as a failing call set it
    command.exec();
    EXPECT_TRUE(command.isExecuted());
    EXPECT_NE(0, command.getErrno());
}

TEST(ExecCmdFailure, HasOnlyTheSectionOfTheStreamThatIsNotEmpty) {
    ExecCmd command("sh");
    command << "-c"
            << "printf 'went wrong' >&2; exit 2";
    EXPECT_EQ(
        "Execution of sh -c printf\\ \\'went\\ wrong\\'\\ \\>\\&2\\;\\ exit\\ 2 failed with return code 2.\n"
        "Stderr is\nwent wrong\n",
        failureOf(command));
}

TEST(ExecCmdFailure, ShowsAllThreeStreams) {
    ExecCmd command("sh");
    command << "-c"
            << "cat; echo err >&2; exit 3";
    command.setInput("input");
    EXPECT_THAT(
        failureOf(command),
        HasSubstr(" failed with return code 3.\nStdin is\ninput\nStdout is\ninput\nStderr is\nerr\n"));
}

TEST(ExecCmdFailure, HasNoSectionWhereThereIsNoText) {
    ExecCmd command("false");
    EXPECT_EQ("Execution of false failed with return code 1.\n", failureOf(command));
}

TEST(ExecCmdFailure, DoesNotTakeStreamsForFormats) {
    ExecCmd command("sh");
    command << "-c"
            << "printf '%%1%%\\n' >&2; exit 1";
    EXPECT_THAT(failureOf(command), HasSubstr("Stderr is\n%1%\n"));
}

TEST(ExecCmdFailure, ShowsAnEmptyArgumentAsTwoQuotes) {
    ExecCmd command("false");
    command << ""
            << "x";
    EXPECT_THAT(failureOf(command), StartsWith("Execution of false '' x failed"));
}

TEST(ExecCmdFailure, IsRaisedForACommandKilledByASignal) {
    ExecCmd command("sh");
    command << "-c"
            << "kill -9 $$";
    EXPECT_THAT(failureOf(command), HasSubstr("failed with return code -1."));
    EXPECT_EQ(-1, command.getReturnCode());
}

TEST(ExecCmdFailure, IsRaisedForAMissingProgram) {
    ExecCmd command("/no/such/program");
    EXPECT_THAT(failureOf(command), StartsWith("Execution of /no/such/program failed with return code 1.\n"));
    EXPECT_THAT(command.getError(),
                HasSubstr(": forkExecvPipes: execv() failed: No such file or directory\n"));
    EXPECT_EQ(command.getError(), command.getOutput());
}

TEST(ExecCmdFailure, HasItsOwnCode) {
    EXPECT_STREQ("ExecCmd::ExFailed", ExecCmd::Failed(true).code);
}

TEST(ExecCmdNoThrow, ReturnsTheStatusWithoutJudgingIt) {
    ExecCmd command("sh");
    command << "-c"
            << "echo out; exit 9";
    EXPECT_EQ(9, command.exec(std::nothrow));
    EXPECT_EQ("out\n", command.getOutput());
    EXPECT_EQ(9, command.getReturnCode());
}

TEST(ExecCmdNoThrow, EndsTheProgramOnASystemError) {
    EXPECT_TRUE(noexcept(std::declval<ExecCmd&>().exec(std::nothrow)));
    EXPECT_EXIT(
        {
            std::signal(SIGPIPE, SIG_IGN);
            ExecCmd command("true");
            command.setInput(std::string(1000000, 'x'));
            command.exec(std::nothrow);
        },
        testing::KilledBySignal(SIGABRT), "writeToString failed: Broken pipe");
}

TEST(ExecCmd, ThrowsASystemErrorWhenTheCommandDoesNotReadItsInput) {
    void (*before)(int) = std::signal(SIGPIPE, SIG_IGN);
    ExecCmd command("true");
    command.setInput(std::string(1000000, 'x'));
    EXPECT_THROW(command.exec(), SystemError);
    std::signal(SIGPIPE, before);
}

}  // namespace
}  // namespace korva
