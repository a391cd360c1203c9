// SPDX-License-Identifier: Apache-2.0
#include "watch/line_report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

namespace korva {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

class Lines : public testing::Test {
  protected:
    std::vector<std::string> after(milliseconds time) {
        now_ += time;
        const Moment moment{FileTime(seconds(1000) + now_), "T", std::nullopt};
        return report.update(snapshot, moment, LineReport::Time(now_));
    }
    FileTime fileTime() const { return FileTime(seconds(1000) + now_); }

    void tell(const RunStatus& status) {
        snapshot.status.exists = true;
        snapshot.status.content = status;
        snapshot.status.changed = fileTime();
    }
    void fetch(std::int64_t sizeLeft) {
        RunStatus status;
        status.state = RunStatus::State::kFetching;
        status.host = "h";
        status.transfer.sizeTotal = 1000;
        status.transfer.sizeLeft = sizeLeft;
        status.transfer.filesTotal = 2;
        status.transfer.filesLeft = 1;
        status.transfer.currentFile = "b.tgz";
        tell(status);
    }
    void end(const Outcome& outcome) {
        snapshot.transferResult.exists = true;
        snapshot.transferResult.content = outcome;
        snapshot.transferResult.changed = fileTime() + milliseconds(1);
    }

    Snapshot snapshot;
    LineReport report{Charset::kAscii};

  private:
    milliseconds now_{10'000};
};

TEST_F(Lines, FirstLineTellsWhatThereIs) {
    EXPECT_THAT(after(milliseconds(0)), ElementsAre("T no run has told anything yet"));
    EXPECT_THAT(after(seconds(100)), IsEmpty());
}

TEST_F(Lines, ProgressIsToldOnceASecondAtMost) {
    fetch(500);
    EXPECT_THAT(after(milliseconds(0)),
                ElementsAre("T fetching content from h, 50 %, 500 of 1000 B, 1 of 2 files, b.tgz"));
    fetch(400);
    EXPECT_THAT(after(milliseconds(900)), IsEmpty());
    EXPECT_THAT(after(milliseconds(100)),
                ElementsAre("T fetching content from h, 60 %, 600 of 1000 B, 1 of 2 files, b.tgz"));
    fetch(400);
    EXPECT_THAT(after(seconds(5)), IsEmpty());
}

TEST_F(Lines, AnotherStateIsToldAtOnce) {
    RunStatus status;
    status.state = RunStatus::State::kListing;
    status.host = "h";
    tell(status);
    EXPECT_THAT(after(milliseconds(0)), ElementsAre("T asking what there is to fetch from h"));
    fetch(1000);
    EXPECT_EQ(after(milliseconds(1)).size(), 1U);
}

TEST_F(Lines, SilenceIsToldEachTimeItHasLastedTwiceAsLong) {
    RunStatus status;
    status.state = RunStatus::State::kWaiting;
    tell(status);
    EXPECT_THAT(after(milliseconds(0)), ElementsAre("T waiting for the agent"));
    EXPECT_THAT(after(seconds(9)), IsEmpty());
    EXPECT_THAT(after(seconds(1)), ElementsAre("T waiting for the agent, no update for 10 s"));
    EXPECT_THAT(after(seconds(9)), IsEmpty());
    EXPECT_THAT(after(seconds(1)), ElementsAre("T waiting for the agent, no update for 20 s"));
    EXPECT_THAT(after(seconds(20)), ElementsAre("T waiting for the agent, no update for 40 s"));
    tell(status);
    EXPECT_THAT(after(milliseconds(1)), ElementsAre("T waiting for the agent"));
}

TEST_F(Lines, OutcomeHasTheCauseFirstOnLinesOfItsOwn) {
    fetch(500);
    after(milliseconds(0));
    Outcome outcome;
    outcome.chains = {{{"Inner", "1-2", false, "two\nlines\x1B"}, {"Outer", "", false, "text"}}};
    end(outcome);
    EXPECT_THAT(after(milliseconds(1)),
                ElementsAre("T failed (transfer.result)", "T   cause: Inner [1-2]: two lines?",
                            "T   led to: Outer: text"));
    EXPECT_EQ(report.newOutcome(snapshot), &snapshot.transferResult);
}

TEST_F(Lines, OutcomeThatWasThereAtFirstIsNotNew) {
    Outcome outcome;
    outcome.success = true;
    end(outcome);
    EXPECT_THAT(after(milliseconds(0)), ElementsAre("T success (transfer.result)"));
    EXPECT_EQ(report.newOutcome(snapshot), nullptr);
    end(outcome);
    EXPECT_EQ(report.newOutcome(snapshot), nullptr);
    after(seconds(1));
    end(outcome);
    EXPECT_EQ(report.newOutcome(snapshot), &snapshot.transferResult);
}

TEST_F(Lines, MomentBetweenTheEndOfARunAndItsResultIsNotTheBeginningOfOne) {
    fetch(0);
    after(milliseconds(0));
    RunStatus idle;
    idle.state = RunStatus::State::kIdle;
    tell(idle);
    EXPECT_THAT(after(milliseconds(250)), IsEmpty());
    EXPECT_THAT(after(milliseconds(500)), IsEmpty());
    EXPECT_THAT(after(milliseconds(500)), ElementsAre("T a run has begun, or is just ending"));
    EXPECT_THAT(after(seconds(9)), IsEmpty());
    EXPECT_THAT(after(seconds(1)), ElementsAre("T a run has begun, or is just ending, no update for 10 s"));
}

TEST_F(Lines, ResultThatCannotBeReadIsTold) {
    snapshot.result.exists = true;
    snapshot.result.problem = "is empty";
    EXPECT_THAT(after(milliseconds(0)), ElementsAre("T the run has ended, but migration.result is empty"));
}

TEST_F(Lines, DumpIsToldWithTheObjectsOfTheDumper) {
    RunStatus status;
    status.state = RunStatus::State::kWaiting;
    tell(status);
    snapshot.dumper.exists = true;
    snapshot.dumper.content =
        DumperStatus{DumperStatus::State::kDumping, 28, 8, 812, 1024, "shop.example", ""};
    snapshot.dumper.changed = snapshot.status.changed;
    EXPECT_THAT(
        after(milliseconds(0)),
        ElementsAre("T waiting for the agent: 20 of 28 objects, dumping shop.example, 812 files, 1.0 KiB"));
}

TEST_F(Lines, DeploymentIsToldWithItsCounters) {
    RunStatus status;
    status.state = RunStatus::State::kDeploying;
    status.deployment = {3, 12, 1, 5, "example.com"};
    tell(status);
    EXPECT_THAT(
        after(milliseconds(0)),
        ElementsAre("T deploying accounts and domains at example.com, 1 of 3 accounts, 5 of 12 domains"));
}

}  // namespace
}  // namespace korva
