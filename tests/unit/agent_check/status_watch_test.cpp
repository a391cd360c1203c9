// SPDX-License-Identifier: Apache-2.0
#include "agent_check/status_watch.h"

#include "commons/system_error.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace korva::agent_check {
namespace {

class StatusWatchTest : public testing::Test {
  protected:
    void replace(const std::string& text) {
        test::writeFile(dir / "new", text);
        ASSERT_EQ(0, std::rename((dir / "new").c_str(), status.c_str()));
    }

    test::TempDir dir;
    const std::string status = dir / "dumping-status.xml";
    Login login;
    StatusWatch watch{dir.path(), login};
};

TEST_F(StatusWatchTest, SeesNothingWhereThereIsNoStatus) {
    test::writeFile(dir / "dump.xml", "<a/>");
    watch.read();
    watch.look();
    EXPECT_FALSE(watch.wasSeen());
    EXPECT_FALSE(watch.wasWrittenInPlace());
}

TEST_F(StatusWatchTest, IsContentWithAStatusThatIsReplaced) {
    replace("<a/>");
    replace("<b/>");
    watch.read();
    watch.look();
    EXPECT_TRUE(watch.wasSeen());
    EXPECT_FALSE(watch.wasWrittenInPlace());
    EXPECT_FALSE(watch.wasMissing());
    EXPECT_EQ("", watch.fault());
}

TEST_F(StatusWatchTest, IsContentWithAFirstOneThatIsLinked) {
    test::writeFile(dir / "new", "<a/>");
    std::filesystem::create_hard_link(dir / "new", status);
    std::filesystem::remove(dir / "new");
    watch.read();
    watch.look();
    EXPECT_TRUE(watch.wasSeen());
    EXPECT_FALSE(watch.wasWrittenInPlace());
    EXPECT_FALSE(watch.wasMissing());
    EXPECT_EQ("", watch.fault());
}

TEST_F(StatusWatchTest, IsContentWithOneThatIsRemovedAtTheEnd) {
    replace("<a/>");
    std::filesystem::remove(status);
    watch.read();
    watch.look();
    EXPECT_TRUE(watch.wasSeen());
    EXPECT_FALSE(watch.wasMissing());
    EXPECT_EQ("", watch.fault());
}

TEST_F(StatusWatchTest, IsContentWhenOneOfAnEarlierDumpIsRemoved) {
    replace("<old/>");
    StatusWatch later(dir.path(), login);
    std::filesystem::remove(status);
    later.read();
    EXPECT_FALSE(later.wasSeen());
    replace("<a/>");
    later.read();
    EXPECT_TRUE(later.wasSeen());
    EXPECT_FALSE(later.wasMissing());
}

TEST_F(StatusWatchTest, IsContentWhenOneOfAFailedStartIsRemoved) {
    watch.begin();
    replace("<old/>");
    watch.read();
    watch.begin();
    std::filesystem::remove(status);
    replace("<a/>");
    watch.read();
    EXPECT_FALSE(watch.wasMissing());
}

TEST_F(StatusWatchTest, HoldsNothingAgainstASecondRunThatAFirstOneDid) {
    test::writeFile(status, "<half");
    watch.read();
    ASSERT_TRUE(watch.wasWrittenInPlace());
    std::filesystem::remove(status);
    replace("<half");
    watch.begin();
    EXPECT_FALSE(watch.wasSeen());
    replace("<a/>");
    watch.read();
    EXPECT_TRUE(watch.wasSeen());
    EXPECT_FALSE(watch.wasWrittenInPlace());
    EXPECT_FALSE(watch.wasMissing());
    EXPECT_EQ("", watch.fault());
}

TEST_F(StatusWatchTest, FindsThatThereIsNoneBetweenTwo) {
    replace("<a/>");
    std::filesystem::remove(status);
    replace("<b/>");
    watch.read();
    EXPECT_TRUE(watch.wasMissing());
    EXPECT_FALSE(watch.wasWrittenInPlace());
}

TEST_F(StatusWatchTest, FindsThatOneIsMovedAwayBeforeTheNextIsLinked) {
    replace("<a/>");
    std::filesystem::rename(status, dir / "old");
    test::writeFile(dir / "new", "<b/>");
    std::filesystem::create_hard_link(dir / "new", status);
    watch.read();
    EXPECT_TRUE(watch.wasMissing());
    EXPECT_FALSE(watch.wasWrittenInPlace());
}

TEST_F(StatusWatchTest, FindsAnEmptyOneThatIsMadeUnderItsName) {
    test::writeFile(status, "");
    replace("<a/>");
    watch.read();
    EXPECT_TRUE(watch.wasWrittenInPlace());
    EXPECT_EQ("", watch.fault());
}

TEST_F(StatusWatchTest, FindsTheFirstStatusWrittenUnderItsName) {
    test::writeFile(status, "<a/>");
    watch.read();
    EXPECT_TRUE(watch.wasWrittenInPlace());
}

TEST_F(StatusWatchTest, FindsWhatIsAppendedToAReplacedOne) {
    replace("<a/>");
    std::ofstream(status, std::ios::app) << "\n";
    watch.read();
    EXPECT_TRUE(watch.wasWrittenInPlace());
}

TEST_F(StatusWatchTest, KeepsInMindThatOneWasNotWhole) {
    replace("<half>");
    watch.read();
    replace("<a/>");
    watch.read();
    EXPECT_NE("", watch.fault());
}

TEST_F(StatusWatchTest, LooksAtTheLastOne) {
    replace("<half>");
    watch.look();
    EXPECT_TRUE(watch.wasSeen());
    EXPECT_NE("", watch.fault());
}

TEST_F(StatusWatchTest, DoesNotWaitForTheOtherEndOfAFifo) {
    ASSERT_EQ(0, mkfifo(status.c_str(), S_IRUSR | S_IRGRP | S_IROTH));
    watch.read();
    EXPECT_EQ("it is no regular file", watch.fault());
}

TEST_F(StatusWatchTest, FindsOneThatTheLoginCannotRead) {
    replace("<a/>");
    std::filesystem::permissions(status, std::filesystem::perms::none);
    watch.look();
    EXPECT_TRUE(watch.wasUnreadable());
}

TEST(StatusWatch, NeedsItsDirectory) {
    const Login login;
    EXPECT_THROW(StatusWatch("/nowhere", login), SystemError);
}

}  // namespace
}  // namespace korva::agent_check
