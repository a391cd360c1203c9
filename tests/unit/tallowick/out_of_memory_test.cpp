// SPDX-License-Identifier: Apache-2.0
#include "commons/log_line.h"
#include "support/allocation_failure.h"
#include "support/captured_log.h"
#include "support/files.h"
#include "support/recording_logs.h"
#include "support/temp_dir.h"
#include "tallowick/args_builder.h"
#include "tallowick/dir_walk.h"
#include "tallowick/start_stop_logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <log4cpp/Category.hh>

#include <filesystem>
#include <new>
#include <optional>
#include <string>

namespace korva {
namespace {

using test::AllocationFailure;
using test::CapturedLog;
using test::debugRecord;
using test::errorRecord;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::size_t kLarge = 20'000;  // bytes, far above what anything else here takes at once

log4cpp::Category& category() {
    return log4cpp::Category::getInstance("any");
}

TEST(LogLine, IsOneMessageOfItsPieces) {
    CapturedLog log;
    debugLine(category()) << "a" << std::string("b") << 1;
    errorLine(category()) << "c";
    EXPECT_THAT(log.records(), ElementsAre(debugRecord("any", "ab1"), errorRecord("any", "c")));
}

TEST(LogLine, IsNotWrittenBelowTheLevelOfItsCategory) {
    CapturedLog log;
    category().setPriority(log4cpp::Priority::INFO);
    debugLine(category()) << "a";
    infoLine(category()) << "b";
    category().setPriority(log4cpp::Priority::NOTSET);
    EXPECT_EQ("b\n", log.text());
}

TEST(LogLine, StaysInACategoryThatPassesNothingOn) {
    CapturedLog log;
    category().setAdditivity(false);
    debugLine(category()) << "a";
    category().setAdditivity(true);
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST(LogLine, IsDroppedWhereMemoryDoesNotSuffice) {
    CapturedLog log;
    std::optional<AllocationFailure> failure;
    {
        LogLine line(category(), log4cpp::Priority::DEBUG);
        line << std::string(kLarge, 'x');
        failure.emplace(kLarge);
    }
    EXPECT_TRUE(AllocationFailure::happened());
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST(LogLine, IsDroppedWhereMemoryDoesNotSufficeForAPiece) {
    CapturedLog log;
    const std::string piece(kLarge, 'x');
    {
        const AllocationFailure failure(kLarge);
        debugLine(category()) << "a" << piece << "b";
        EXPECT_TRUE(AllocationFailure::happened());
    }
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST(LogOfADestructor, IsDroppedWhereMemoryDoesNotSuffice) {
    CapturedLog log;
    const std::string message(kLarge, 'x');
    {
        const AllocationFailure failure(kLarge);
        debugOrNothing(&category, message.c_str());
        EXPECT_TRUE(AllocationFailure::happened());
    }
    debugOrNothing(&category, "Closed");
    EXPECT_THAT(log.records(), ElementsAre(debugRecord("any", "Closed")));
}

TEST(EndOfTheRunsRecord, IsDroppedWhereMemoryDoesNotSuffice) {
    test::RecordingDebugLog log;
    char name[] = "tallowick";
    char* argv[] = {name, nullptr};
    std::optional<AllocationFailure> failure;
    {
        const StartStopLogger run(std::string(kLarge, 'n'), 1, argv, {});
        failure.emplace(kLarge);
    }
    EXPECT_TRUE(AllocationFailure::happened());
    EXPECT_EQ(1U, log.texts.size());
}

TEST(CommandLine, LeavesNoWordOutWhereMemoryDoesNotSuffice) {
    ArgsBuilder line("rm");
    const std::string word(100, 'w');
    std::size_t words = 0;
    const AllocationFailure failure(kLarge);
    EXPECT_THROW(
        for (; words < kLarge; ++words) { line << word; }, std::bad_alloc);
    EXPECT_EQ(2 + words * 101, line.str().size());
}

TEST(DirWalk, ThrowsWhereMemoryDoesNotSufficeForTheNextEntry) {
    const test::TempDir top;
    std::string directory = top / "tree";
    while (directory.size() < 3000) {
        directory += "/" + std::string(200, 'd');
    }
    std::filesystem::create_directories(directory);
    for (const char* name : {"a", "b"}) {
        test::writeFile(directory + "/" + name, "content");
    }
    std::optional<AllocationFailure> failure;
    const auto visitor = [&](const std::filesystem::path& path, const std::string&) {
        if (!std::filesystem::is_directory(path)) {
            failure.emplace(directory.size());
        }
        return true;
    };
    EXPECT_THROW(recursive_dir_walk_sync(top / "tree", "remote", visitor), std::bad_alloc);
}

}  // namespace
}  // namespace korva
