// SPDX-License-Identifier: Apache-2.0
#include "tallowick/start_stop_logger.h"

#include "support/recording_logs.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

namespace korva {
namespace {

using test::RecordingDebugLog;
using testing::ElementsAre;

/// What is logged of a run with these arguments and this exit code.
std::vector<std::string> logOfRun(std::vector<std::string> arguments, std::optional<int> exitCode,
                                  const std::string& secret = "") {
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    RecordingDebugLog log;
    {
        StartStopLogger run("Tallowick", static_cast<int>(arguments.size()), argv.data(), {secret});
        if (exitCode) {
            run.setExitCode(*exitCode);
        }
    }
    return log.texts;
}

TEST(StartStopLogger, RecordsTheQuotedCommandLineAndTheExitCode) {
    EXPECT_THAT(logOfRun({"/usr/bin/tallowick", "--host", "", "--agent-dir=a b"}, 17),
                ElementsAre("Tallowick started : /usr/bin/tallowick --host '' --agent-dir=a\\ b",
                            "Tallowick finished. Exit code: 17"));
}

TEST(StartStopLogger, HidesAPasswordThatWasTypedOnTheCommandLine) {
    EXPECT_EQ(
        "Tallowick started : tallowick --sudo-password ******** --login=********x",
        logOfRun({"tallowick", "--sudo-password", "it's $ecret", "--login=it's $ecretx"}, 1, "it's $ecret")
            .front());
}

TEST(StartStopLogger, RecordsSuccess) {
    EXPECT_EQ("Tallowick finished. Exit code: 0", logOfRun({"tallowick"}, 0).back());
}

TEST(StartStopLogger, SaysWhenTheExitCodeIsNotReported) {
    EXPECT_EQ("Tallowick finished.  (exit code is not reported)",
              logOfRun({"tallowick"}, std::nullopt).back());
}

TEST(StartStopLogger, IsToldWhenTheProcessTurnsIntoADaemon) {
    RecordingDebugLog log;
    const std::string pid = std::to_string(getpid());
    char name[] = "tallowick";
    char* argv[] = {name, nullptr};
    {
        const StartStopLogger run("Tallowick", 1, argv, {});
        ASSERT_EQ(1U, childDaemonHandlers.size());
        childDaemonHandlers.front()();
        EXPECT_EQ("Tallowick " + pid + " -> (" + pid + " daemon)", log.texts.back());
    }
    EXPECT_TRUE(childDaemonHandlers.empty());
}

TEST(StartStopLogger, TellsTheFirstProcessIdBesideThatOfTheDaemon) {
    RecordingDebugLog log;
    char name[] = "tallowick";
    char* argv[] = {name, nullptr};
    const StartStopLogger run("Tallowick", 1, argv, {});
    const std::string parent = std::to_string(getpid());
    const pid_t child = fork();
    if (child == 0) {
        run.daemonized();
        const std::string expected = "Tallowick " + parent + " -> (" + std::to_string(getpid()) + " daemon)";
        _exit(log.texts.back() == expected ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
}

}  // namespace
}  // namespace korva
