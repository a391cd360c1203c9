// SPDX-License-Identifier: Apache-2.0
#include "agent_check/status_watch.h"

#include "commons/system_error.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <unistd.h>

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
