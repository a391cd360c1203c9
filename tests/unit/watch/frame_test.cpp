// SPDX-License-Identifier: Apache-2.0
#include "watch/frame.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <clocale>
#include <string>

namespace korva {
namespace {

using std::chrono::seconds;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

FileTime at(int second) {
    return FileTime(seconds(1'700'000'000 + second));
}

template <typename T>
void write(Document<T>& document, T content, FileTime when) {
    document.exists = true;
    document.content = std::move(content);
    document.changed = when;
}

class FrameOf : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
        snapshot.directory = "/sessions/one";
    }
    void TearDown() override { std::setlocale(LC_CTYPE, "C"); }

    std::string screen(int columns = 80, int rows = 24, Charset charset = Charset::kUnicode) const {
        const Frame frame = renderScreen(snapshot, moment, {columns, rows}, charset);
        EXPECT_LE(frame.size(), static_cast<std::size_t>(std::max(rows, 0)));
        std::string text;
        for (const Row& row : frame) {
            EXPECT_LE(columnsOf(plainText(row)), std::max(columns, 1)) << plainText(row);
            text += plainText(row) + "\n";
        }
        return text;
    }

    void beFetching() {
        RunStatus status;
        status.state = RunStatus::State::kFetching;
        status.host = "source.example";
        status.transfer = {
            1 << 20,   44,      12, std::int64_t{4} << 30, std::int64_t{1} << 30, "domain-12.tar.gz",
            100 << 20, 60 << 20};
        write(snapshot.status, status, at(-3));
    }
    void fail() {
        Outcome outcome;
        outcome.chains = {{{"SshConnectionFault", "5a2478d9-50c2-46d1-81f9-3f75c5a44d55", false,
                            "Lost connection with the remote host"},
                           {"CantRetrieveDump", "eaf0f69c-fecb-4029-8148-b772d4878c4d", false,
                            "Error during dump retrieval"}}};
        write(snapshot.transferResult, outcome, at(-12));
    }

    Snapshot snapshot;
    Moment moment{at(0), "02:05:07", std::nullopt};
};

TEST_F(FrameOf, ATransferHasEverythingThatIsKnownOfIt) {
    beFetching();
    moment.rate = 10 << 20;
    const std::string text = screen();
    for (const char* const each :
         {"fetching content from source.example", "75 %  3.0 of 4.0 GiB", "72 %  32 of 44",
          "10.0 MiB/s, 1.0 MiB/s on average", "1 min 42 s", "domain-12.tar.gz", "40 %  40 of 100 MiB",
          "3 s ago", "/sessions/one", "02:05:07", "q quits"}) {
        EXPECT_THAT(text, HasSubstr(each));
    }
}

TEST_F(FrameOf, TransferWithoutNumbersHasNoBars) {
    RunStatus status;
    status.state = RunStatus::State::kFetching;
    write(snapshot.status, status, at(0));
    EXPECT_THAT(screen(), AllOf(HasSubstr("fetching content"), Not(HasSubstr("%"))));
}

TEST_F(FrameOf, StandstillHasNoTimeLeft) {
    beFetching();
    moment.rate = 0;
    EXPECT_THAT(screen(), HasSubstr("unknown while nothing comes"));
}

TEST_F(FrameOf, LongSilenceIsToldInSeconds) {
    beFetching();
    snapshot.status.changed = at(-95);
    EXPECT_THAT(screen(), HasSubstr("no update for 95 s"));
}

TEST_F(FrameOf, RunThatWasKilledBetweenItsLastWordAndItsResultIsToldByItsSilence) {
    fail();
    snapshot.transferResult.changed = at(-500);
    RunStatus idle;
    idle.state = RunStatus::State::kIdle;
    write(snapshot.status, idle, at(-95));
    EXPECT_THAT(screen(), AllOf(HasSubstr("A run has begun, or is just ending."),
                                HasSubstr("no update for 95 s"), Not(HasSubstr("FAILED"))));
}

TEST_F(FrameOf, ClockThatWasSetBackMakesNoNegativeAge) {
    beFetching();
    snapshot.status.changed = at(500);
    EXPECT_THAT(screen(), HasSubstr("0 s ago"));
}

TEST_F(FrameOf, AFailureHasItsCauseFirst) {
    fail();
    const std::string text = screen();
    const std::size_t cause = text.find("SshConnectionFault");
    const std::size_t id = text.find("5a2478d9-50c2-46d1-81f9-3f75c5a44d55");
    const std::size_t description = text.find("Lost connection");
    const std::size_t outer = text.find("CantRetrieveDump");
    ASSERT_NE(outer, std::string::npos);
    EXPECT_LT(cause, id);
    EXPECT_LT(id, description);
    EXPECT_LT(description, outer);
    EXPECT_THAT(text, AllOf(HasSubstr("FAILED  12 s ago, transfer.result"), HasSubstr("eaf0f69c")));
}

TEST_F(FrameOf, CauseIsTheLastToGoFromASmallScreen) {
    fail();
    const std::string text = screen(40, 4);
    EXPECT_THAT(text, AllOf(HasSubstr("FAILED"), HasSubstr("SshConnectionFault"),
                            HasSubstr("Lost connection with the"), Not(HasSubstr("CantRetrieveDump"))));
}

TEST_F(FrameOf, IdsAreWholeOnANarrowScreen) {
    fail();
    std::string text = screen(40, 24);
    std::string joined;
    for (const char c : text) {
        joined += c == '\n' || c == ' ' ? "" : std::string(1, c);
    }
    EXPECT_THAT(joined, HasSubstr("id5a2478d9-50c2-46d1-81f9-3f75c5a44d55"));
}

TEST_F(FrameOf, OtherMessagesAreCounted) {
    fail();
    snapshot.transferResult.content->chains.resize(3, {{"Other", "", false, ""}});
    snapshot.transferResult.content->leftOut = 5;
    EXPECT_THAT(screen(), HasSubstr("and 7 more messages in transfer.result"));
}

TEST_F(FrameOf, FailureWithoutAMessageSaysWhereToLook) {
    write(snapshot.result, Outcome(), at(0));
    EXPECT_THAT(screen(), AllOf(HasSubstr("FAILED"), HasSubstr("migration.log")));
}

TEST_F(FrameOf, SuccessIsToldWithItsWarnings) {
    Outcome outcome;
    outcome.success = true;
    outcome.chains = {{{"Odd", "", true, "odd but so"}}};
    write(snapshot.result, outcome, at(-4));
    EXPECT_THAT(screen(),
                AllOf(HasSubstr("SUCCESS  4 s ago"), HasSubstr("Warning   Odd"), HasSubstr("odd but so")));
}

TEST_F(FrameOf, ADumpHasTheObjectsOfTheDumper) {
    RunStatus status;
    status.state = RunStatus::State::kWaiting;
    write(snapshot.status, status, at(-60));
    DumperStatus dumper;
    dumper.state = DumperStatus::State::kDumping;
    dumper.total = 28;
    dumper.left = 8;
    dumper.current = "shop.example";
    write(snapshot.dumper, dumper, at(-2));
    EXPECT_THAT(screen(),
                AllOf(HasSubstr("71 %  20 of 28"), HasSubstr("dumping shop.example"), HasSubstr("2 s ago")));
    snapshot.dumper.changed = at(-100);
    EXPECT_THAT(screen(), AllOf(HasSubstr("(an earlier dump)"), Not(HasSubstr("%"))));
}

TEST_F(FrameOf, ADeploymentHasItsCounters) {
    RunStatus status;
    status.state = RunStatus::State::kDeploying;
    status.deployment = {3, 12, 1, 5, "example.com"};
    write(snapshot.status, status, at(0));
    EXPECT_THAT(screen(), AllOf(HasSubstr("1 of 3"), HasSubstr("5 of 12"), HasSubstr("example.com")));
}

TEST_F(FrameOf, ProblemsWithFilesAreNoted) {
    snapshot.status.exists = true;
    snapshot.status.problem = "is empty";
    EXPECT_THAT(screen(), HasSubstr("migration.status is empty"));
    snapshot.problem = "does not exist";
    EXPECT_THAT(screen(), HasSubstr("The directory does not exist."));
}

TEST_F(FrameOf, NothingFromAFileReachesTheTerminalAsItCame) {
    beFetching();
    snapshot.directory = "/\x1B]0;title\x07";
    snapshot.status.content->host = "\x1B[2J\u202Ehost";
    snapshot.status.content->transfer.currentFile = "a\x9B\nb\u2066";
    DumperStatus dumper;
    dumper.message = "\x1B[31m";
    write(snapshot.dumper, dumper, at(0));
    fail();
    snapshot.transferResult.content->chains[0][0] = {
        "\x1B"
        "c",
        "\u0090id", false, "line one\n\x1B[31mline two"};
    for (const bool ended : {false, true}) {
        snapshot.transferResult.changed = ended ? at(0) : at(-50);
        for (const Charset charset : {Charset::kUnicode, Charset::kAscii}) {
            const std::string text = screen(80, 24, charset);
            for (const char* const each : {"\x1B", "\x07", "\x9B\n", "\u202E", "\u2066", "\u0090"}) {
                EXPECT_THAT(text, Not(HasSubstr(each)));
            }
        }
    }
}

TEST_F(FrameOf, AnySizeWillDo) {
    fail();
    for (const bool ended : {false, true}) {
        if (!ended) {
            beFetching();
            snapshot.status.changed = at(0);
        } else {
            snapshot.status.exists = false;
            snapshot.status.content.reset();
        }
        for (const int columns : {-1, 0, 1, 2, 5, 10, 11, 12, 13, 19, 20, 36, 37, 40, 59, 1000}) {
            for (const int rows : {-1, 0, 1, 2, 3, 5, 9, 30, 1000}) {
                screen(columns, rows);
            }
        }
    }
}

TEST_F(FrameOf, AsciiIsEnough) {
    beFetching();
    for (const char c : screen(80, 24, Charset::kAscii)) {
        EXPECT_TRUE(c == '\n' || (c >= ' ' && c <= '~'));
    }
}

TEST_F(FrameOf, AReportHasNeitherTitleNorHelp) {
    fail();
    std::string text;
    for (const Row& row : renderReport(snapshot, moment, 1000, Charset::kUnicode)) {
        text += plainText(row) + "\n";
    }
    EXPECT_THAT(text,
                AllOf(HasSubstr("FAILED"), Not(HasSubstr("q quits")), Not(HasSubstr("tallowick-watch"))));
}

}  // namespace
}  // namespace korva
