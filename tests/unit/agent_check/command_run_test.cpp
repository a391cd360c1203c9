// SPDX-License-Identifier: Apache-2.0
#include "agent_check/command_run.h"

#include "support/files.h"
#include "support/temp_dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <sstream>
#include <string>

namespace korva::agent_check {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

constexpr std::chrono::seconds kPatience{120};
constexpr std::chrono::seconds kShort{2};

class CommandRun : public testing::Test {
  protected:
    // As the program does it.
    CommandRun() {
        adoptOrphans();
        previous_ = std::signal(SIGPIPE, SIG_IGN);
    }
    ~CommandRun() override { std::signal(SIGPIPE, previous_); }

    static CommandResult run(const std::string& line, const std::string& input = "",
                             std::chrono::seconds limit = kPatience) {
        return runCommand(line, input, limit, LongOutput::kEnds, nullptr);
    }

  private:
    void (*previous_)(int) = nullptr;
};

TEST_F(CommandRun, GivesBothOutputsAndTheStatus) {
    const CommandResult result = run("echo out; echo err >&2; exit 3");
    EXPECT_EQ("out\n", result.out);
    EXPECT_EQ("err\n", result.err);
    EXPECT_EQ(3, result.status);
    EXPECT_FALSE(result.isGood());
}

TEST_F(CommandRun, FeedsMoreThanAPipeHolds) {
    const std::string input(std::size_t{1} << 20, 'x');
    const CommandResult result = run("cat; cat >&2", input);
    EXPECT_TRUE(result.isGood());
    EXPECT_EQ(input, result.out);
}

TEST_F(CommandRun, EndsTheInputAtOnceWhereThereIsNone) {
    EXPECT_EQ("0\n", run("wc -c").out);
}

TEST_F(CommandRun, DoesNotMindInputThatIsNotRead) {
    EXPECT_TRUE(run("exec <&-; echo good", std::string(std::size_t{1} << 20, 'x')).isGood());
}

TEST_F(CommandRun, HasNoTerminalAndASessionOfItsOwn) {
    const CommandResult result = run("(: </dev/tty) 2>/dev/null || echo none; ps -o sid= -p $$; echo $$");
    std::string sid;
    std::string pid;
    std::string none;
    std::istringstream(result.out) >> none >> sid >> pid;
    EXPECT_EQ("none", none);
    EXPECT_EQ(sid, pid);
}

TEST_F(CommandRun, TellsAWatcherThatItBegins) {
    struct Counter : Watcher {
        void begin() override { ++begun; }
        int fd() const override { return -1; }
        void read() override {}
        int begun = 0;
    } counter;
    for (int run = 1; run <= 2; ++run) {
        runCommand("true", "", kPatience, LongOutput::kIsCut, &counter);
        EXPECT_EQ(run, counter.begun);
    }
}

TEST_F(CommandRun, TellsTheSignalThatEndedIt) {
    EXPECT_EQ(128 + SIGKILL, run("kill -KILL $$").status);
}

TEST_F(CommandRun, EndsWhatRunsTooLong) {
    const CommandResult result = run("trap 'echo tidied' TERM; sleep 1000 & wait", "", kShort);
    EXPECT_TRUE(result.timedOut);
    EXPECT_FALSE(result.keptOpen);
    EXPECT_FALSE(result.isGood());
}

TEST_F(CommandRun, EndsWhatDoesNotWantToEnd) {
    EXPECT_TRUE(run("trap '' TERM; while :; do sleep 1; done", "", kShort).timedOut);
}

TEST_F(CommandRun, EndsWhatThatHasStartedInASessionOfItsOwn) {
    const test::TempDir dir;
    const std::string file = dir / "pid";
    EXPECT_TRUE(run("trap '' TERM; setsid sh -c 'echo $$ >" + file +
                        "; exec sleep 1000' &"
                        " while :; do sleep 1; done",
                    "", kShort)
                    .timedOut);
    const int pid = std::stoi(test::readFile(file));
    EXPECT_EQ(-1, kill(pid, 0));
    EXPECT_EQ(ESRCH, errno);
}

TEST_F(CommandRun, TellsWhetherOnlyTheOutputWasKeptOpen) {
    const CommandResult result = run("sleep 1000 & exit 0", "", kShort);
    EXPECT_TRUE(result.timedOut);
    EXPECT_TRUE(result.keptOpen);
}

TEST_F(CommandRun, EndsWhatPrintsWithoutEnd) {
    const CommandResult result = run("yes");
    EXPECT_TRUE(result.exceeded);
    EXPECT_FALSE(result.timedOut);
}

TEST_F(CommandRun, KeepsTheEndsOfALongOutputWhereItIsToBeCut) {
    const CommandResult result = runCommand("echo begin; head -c 20000000 /dev/zero; echo end", "", kPatience,
                                            LongOutput::kIsCut, nullptr);
    EXPECT_TRUE(result.isGood());
    EXPECT_TRUE(result.out.starts_with("begin\n"));
    EXPECT_TRUE(result.out.ends_with("end\n"));
}

TEST_F(CommandRun, NamesAndEndsWhatIsLeftBehind) {
    const CommandResult result = run("setsid sleep 1000 >/dev/null 2>&1 & exit 0");
    EXPECT_TRUE(result.isGood());
    EXPECT_THAT(result.left, SizeIs(1));
    EXPECT_THAT(run("true").left, IsEmpty());
}

TEST_F(CommandRun, DoesNotMindWhatEndsRightAfterwards) {
    EXPECT_THAT(run("sleep 0.1 >/dev/null 2>&1 & exit 0").left, IsEmpty());
}

}  // namespace
}  // namespace korva::agent_check
