// SPDX-License-Identifier: Apache-2.0
#include "tallowick/retrieval_progress.h"

#include "fakes/fake_migration_status.h"
#include "support/fake_clock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>

namespace korva {
namespace {

using test::FakeClock;
using test::FakeMigrationStatus;
using testing::ElementsAre;
using testing::IsEmpty;

class RetrievalProgress : public testing::Test {
  protected:
    /// What the next piece of that many bytes tells.
    const std::vector<std::string>& receive(FileRetrievalProgressUpdater& progress, int bytes) {
        status.calls.clear();
        progress(bytes);
        return status.calls;
    }
    std::string speedAfter(FileRetrievalProgressUpdater& progress, int bytes) {
        return receive(progress, bytes).at(0);
    }

    FakeClock clock;
    FakeMigrationStatus status;
    const std::unique_ptr<MigrationStatus> document = createMigrationStatusFile();
};

TEST_F(RetrievalProgress, TellsNothingBeforeSomethingHasArrived) {
    status.calls.clear();
    FileRetrievalProgressUpdater progress(*document, 1000, 3);
    progress.startFile(100);
    EXPECT_THAT(status.calls, IsEmpty());
}

TEST_F(RetrievalProgress, TellsSpeedAndWhatIsLeftWithEachPiece) {
    FileRetrievalProgressUpdater progress(*document, 1000, 3);
    progress.startFile(300);
    clock.now += 2;
    EXPECT_THAT(receive(progress, 100),
                ElementsAre("transfer speed 50", "size left 900", "current file size left 200", "save"));
    EXPECT_THAT(receive(progress, 200),
                ElementsAre("transfer speed 150", "size left 700", "current file size left 0", "save"));
}

TEST_F(RetrievalProgress, BeginsAnewWithEachFileButNotWithTheWhole) {
    FileRetrievalProgressUpdater progress(*document, 1000, 2);
    progress.startFile(300);
    receive(progress, 300);
    progress.startFile(700);
    EXPECT_THAT(receive(progress, 1),
                ElementsAre("transfer speed 0", "size left 699", "current file size left 699", "save"));
}

TEST_F(RetrievalProgress, CountsFinishedFiles) {
    FileRetrievalProgressUpdater progress(*document, 1000, 2);
    status.calls.clear();
    progress.finishFile();
    progress.finishFile();
    EXPECT_THAT(status.calls, ElementsAre("files left 1", "save", "files left 0", "save"));
}

TEST_F(RetrievalProgress, TellsNoSpeedWithinTheFirstSecond) {
    FileRetrievalProgressUpdater progress(*document, 1000, 1);
    EXPECT_EQ("transfer speed 0", speedAfter(progress, 500));
    clock.now += 1;
    EXPECT_EQ("transfer speed 501", speedAfter(progress, 1));
}

TEST_F(RetrievalProgress, TellsWholeBytesPerSecond) {
    FileRetrievalProgressUpdater progress(*document, 1000, 1);
    clock.now += 3;
    EXPECT_EQ("transfer speed 3", speedAfter(progress, 11));
}

TEST_F(RetrievalProgress, NeverTellsANegativeSpeedWhenTheClockIsSetBack) {
    FileRetrievalProgressUpdater progress(*document, 1000, 1);
    clock.now -= 3600;
    EXPECT_EQ("transfer speed 0", speedAfter(progress, 500));
    clock.now += 3602;
    EXPECT_EQ("transfer speed 300", speedAfter(progress, 100));
}

TEST_F(RetrievalProgress, NeverTellsThatLessThanNothingIsLeft) {
    FileRetrievalProgressUpdater progress(*document, 150, 1);
    progress.startFile(100);
    EXPECT_THAT(receive(progress, 101),
                ElementsAre("transfer speed 0", "size left 49", "current file size left 0", "save"));
    EXPECT_THAT(receive(progress, 65536),
                ElementsAre("transfer speed 0", "size left 0", "current file size left 0", "save"));
}

TEST_F(RetrievalProgress, CountsBeyondFourGigabytes) {
    constexpr std::int64_t kSize = std::int64_t{1} << 33;
    FileRetrievalProgressUpdater progress(*document, kSize, 1);
    progress.startFile(kSize);
    constexpr int kPiece = std::numeric_limits<int>::max();
    receive(progress, kPiece);
    receive(progress, kPiece);
    clock.now += 1;
    EXPECT_THAT(receive(progress, kPiece), ElementsAre("transfer speed 6442450941", "size left 2147483651",
                                                       "current file size left 2147483651", "save"));
}

}  // namespace
}  // namespace korva
