// SPDX-License-Identifier: Apache-2.0
#include "watch/session_watch.h"

#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <string>

namespace korva {
namespace {

using test::TempDir;
using test::writeFile;
using Phase = Situation::Phase;

constexpr const char* kIdle = "<migration-status><idle/></migration-status>";
constexpr const char* kWaiting =
    "<migration-status><agent action='wait'><host>h</host></agent></migration-status>";
constexpr const char* kFetching =
    "<migration-status><transfer><host>h</host><files total='1' left='1'/></transfer></migration-status>";
constexpr const char* kSuccess = "<execution-result status='success'/>";
constexpr const char* kDumping = "<dumping-status><dumping total='2' left='1'/></dumping-status>";

class SessionWatching : public testing::Test {
  protected:
    /// Files that are made later here are newer, whatever the clock of the file system can tell apart.
    void make(const std::string& name, const std::string& content) {
        makeAt(kFirst + ++made_, name, content);
    }
    void makeAt(std::time_t second, const std::string& name, const std::string& content) {
        const std::string path = directory / name;
        writeFile(path, content);
        const timespec when = {second, 0};
        const timespec times[] = {when, when};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }
    /// As a new run does it.
    void putAside(const std::string& name, int number) {
        std::filesystem::rename(directory / name, directory / (name + "." + std::to_string(number)));
    }
    Situation look() { return judge(watch.look()); }

    static constexpr std::time_t kFirst = 1'700'000'000;

    TempDir directory;
    SessionWatch watch{directory.path()};

  private:
    int made_ = 0;
};

TEST_F(SessionWatching, MissingDirectoryIsToldAndAwaited) {
    SessionWatch missing(directory / "later");
    EXPECT_EQ(missing.look().problem, "does not exist");
    EXPECT_EQ(judge(missing.look()).phase, Phase::kNoDirectory);
    std::filesystem::create_directory(directory / "later");
    EXPECT_EQ(judge(missing.look()).phase, Phase::kNothing);
}

TEST_F(SessionWatching, WhatIsNoDirectoryIsTold) {
    make("file", "");
    SessionWatch file(directory / "file");
    EXPECT_EQ(file.look().problem, "cannot be entered: Not a directory");
}

TEST_F(SessionWatching, EmptyDirectoryTellsNothing) {
    EXPECT_EQ(look().phase, Phase::kNothing);
}

TEST_F(SessionWatching, IdleWithoutAResultIsARunThatHasBegun) {
    make("migration.status", kIdle);
    EXPECT_EQ(look().phase, Phase::kBegun);
}

TEST_F(SessionWatching, IdleThatIsNewerThanEveryResultIsARunThatHasBegun) {
    make("transfer.result", kSuccess);
    make("migration.result", kSuccess);
    make("migration.status", kIdle);
    const Situation situation = look();
    EXPECT_EQ(situation.phase, Phase::kBegun);
    EXPECT_EQ(situation.outcome, nullptr);
    EXPECT_EQ(situation.lastWord, watch.look().status.changed);
}

TEST_F(SessionWatching, ResultOfTheMomentOfIdleIsTheOutcome) {
    makeAt(kFirst, "migration.status", kIdle);
    makeAt(kFirst, "migration.result", kSuccess);
    EXPECT_EQ(look().phase, Phase::kEnded);
}

TEST_F(SessionWatching, ActiveStateIsARunThatGoesOn) {
    make("migration.result", kSuccess);
    make("migration.status", kWaiting);
    const Situation situation = look();
    EXPECT_EQ(situation.phase, Phase::kRunning);
    EXPECT_EQ(situation.status->host, "h");
}

TEST_F(SessionWatching, NewestResultIsTheOutcome) {
    make("migration.status", kIdle);
    make("transfer.result", kSuccess);
    make("migration.result", kSuccess);
    EXPECT_EQ(look().outcome->name, "migration.result");
    make("transfer.result", kSuccess);
    EXPECT_EQ(look().outcome->name, "transfer.result");
}

TEST_F(SessionWatching, ResultThatIsNewerThanAnActiveStateIsTheOutcome) {
    make("migration.status", kWaiting);
    make("migration.result", kSuccess);
    EXPECT_EQ(look().phase, Phase::kEnded);
}

TEST_F(SessionWatching, ReportOfAnAgentIsNotTheOutcomeOfTheTransferThatBringsIt) {
    make("migration.status", kFetching);
    make("migration.result", kSuccess);
    EXPECT_EQ(look().phase, Phase::kRunning);
    make("transfer.result", kSuccess);
    EXPECT_EQ(look().phase, Phase::kEnded);
}

TEST_F(SessionWatching, ResultOfALaterRunIsTheOutcomeThoughATransferWasKilled) {
    makeAt(kFirst, "migration.status", kFetching);
    makeAt(kFirst + 4000, "migration.result", kSuccess);
    const Situation situation = look();
    EXPECT_EQ(situation.phase, Phase::kEnded);
    EXPECT_EQ(situation.outcome->name, "migration.result");
}

TEST_F(SessionWatching, ResultOfALaterRunIsTheOutcomeThoughADumpWasKilled) {
    make("migration.status", kWaiting);
    make("transfer.result", kSuccess);
    EXPECT_EQ(look().outcome->name, "transfer.result");
}

TEST_F(SessionWatching, RunThatFollowsAKilledTransferAtOnceIsTold) {
    make("migration.result", kSuccess);
    make("migration.status", kFetching);
    putAside("migration.result", 1);
    const Situation situation = look();
    EXPECT_EQ(situation.phase, Phase::kBegun);
    EXPECT_GT(situation.lastWord, watch.look().status.changed);
    make("migration.result", kSuccess);
    EXPECT_EQ(look().phase, Phase::kEnded);
}

TEST_F(SessionWatching, ResultThatWasPutAsideIsTheBeginningOfARun) {
    make("migration.status", kIdle);
    make("migration.result", kSuccess);
    make("transfer.result", kSuccess);
    putAside("transfer.result", 1);
    EXPECT_EQ(look().phase, Phase::kBegun);
    make("transfer.result", kSuccess);
    EXPECT_EQ(look().phase, Phase::kEnded);
    putAside("transfer.result", 2);
    EXPECT_EQ(look().phase, Phase::kBegun);
}

TEST_F(SessionWatching, RemovedResultsAreForgotten) {
    make("migration.status", kIdle);
    make("migration.result", kSuccess);
    putAside("migration.result", 1);
    make("transfer.result", kSuccess);
    EXPECT_EQ(look().phase, Phase::kBegun);
    std::filesystem::remove(directory / "migration.result.1");
    EXPECT_EQ(look().phase, Phase::kEnded);
}

TEST_F(SessionWatching, DumpersStatusIsOfThisRunWhenItIsNewer) {
    make("dumping-status.xml", kDumping);
    make("migration.status", kWaiting);
    EXPECT_FALSE(look().dumperIsCurrent);
    make("dumping-status.xml", kDumping);
    const Situation situation = look();
    EXPECT_TRUE(situation.dumperIsCurrent);
    EXPECT_EQ(situation.lastWord, watch.look().dumper.changed);
}

TEST_F(SessionWatching, LastWholeDocumentStaysWhenHalfAnOneComes) {
    make("migration.status", kWaiting);
    EXPECT_EQ(look().phase, Phase::kRunning);
    make("migration.status", std::string(kWaiting).substr(0, 40));
    EXPECT_EQ(look().phase, Phase::kRunning);
    EXPECT_EQ(watch.look().status.problem, "is not a whole document of its kind");
    make("migration.status", "");
    EXPECT_EQ(look().phase, Phase::kRunning);
    EXPECT_EQ(watch.look().status.problem, "is empty");
}

TEST_F(SessionWatching, ResultThatCannotBeReadIsAnEndAllTheSame) {
    make("migration.status", kIdle);
    make("migration.result", "<execution-res");
    const Situation situation = look();
    EXPECT_EQ(situation.phase, Phase::kEnded);
    EXPECT_FALSE(situation.outcome->content);
}

TEST_F(SessionWatching, ResultThatCannotBeReadHasNothingOfTheOneBefore) {
    make("migration.status", kIdle);
    make("migration.result", "<execution-result status=\"success\"/>");
    ASSERT_TRUE(look().outcome->content);
    make("migration.result", "<execution-res");
    EXPECT_FALSE(look().outcome->content);
}

TEST_F(SessionWatching, FifosAreNotWaitedFor) {
    for (const char* const name :
         {"migration.status", "migration.result", "transfer.result", "dumping-status.xml"}) {
        ASSERT_EQ(mkfifo((directory / name).c_str(), 0600), 0);
    }
    look();
    EXPECT_EQ(watch.look().status.problem, "is no regular file");
    EXPECT_EQ(watch.look().transferResult.problem, "is no regular file");
}

TEST_F(SessionWatching, LinksAreNotFollowed) {
    make("elsewhere", kWaiting);
    std::filesystem::create_symlink("elsewhere", directory / "migration.status");
    EXPECT_EQ(watch.look().status.problem, "is no regular file");
    EXPECT_FALSE(watch.look().status.content);
}

TEST_F(SessionWatching, DirectoryInTheWayIsTold) {
    std::filesystem::create_directory(directory / "migration.status");
    EXPECT_EQ(watch.look().status.problem, "is no regular file");
}

TEST_F(SessionWatching, OfAHugeFileNoMoreIsReadThanADocumentMayNeed) {
    make("migration.result", "<execution-result>");
    std::filesystem::resize_file(directory / "migration.result", std::uintmax_t{1} << 40);
    EXPECT_EQ(watch.look().result.problem, "is larger than 4 MiB");
}

TEST_F(SessionWatching, DocumentThatWasRemovedIsForgotten) {
    make("migration.status", kWaiting);
    look();
    std::filesystem::remove(directory / "migration.status");
    EXPECT_EQ(look().phase, Phase::kNothing);
}

TEST_F(SessionWatching, TimesThatNobodyCanCountInNanosecondsAreTheFirstOrTheLast) {
    makeAt(-11'676'096'000, "migration.result", kSuccess);  // the year 1600
    make("migration.status", kIdle);
    const FileTime usual = watch.look().status.changed;
    EXPECT_LT(watch.look().result.changed, usual);
    makeAt(13'569'465'600, "migration.result", kSuccess);  // the year 2400
    EXPECT_GT(watch.look().result.changed, usual);
}

TEST_F(SessionWatching, NothingIsLeftInTheDirectory) {
    make("migration.status", kWaiting);
    look();
    look();
    int entries = 0;
    for ([[maybe_unused]] const auto& each : std::filesystem::directory_iterator(directory.path())) {
        ++entries;
    }
    EXPECT_EQ(entries, 1);
}

}  // namespace
}  // namespace korva
