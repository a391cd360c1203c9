// SPDX-License-Identifier: Apache-2.0
#include "agent_check/deployment.h"

#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace korva::agent_check {
namespace {

namespace fs = std::filesystem;

/// An agent directory beside one that is not its own.
class LiesBelowDirectory : public testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories(agent_ / "content");
        fs::create_directories(top_ / "agent-of-another");
        fs::create_directories(top_ / "sites");
    }

    bool lies(const std::string& relative) const { return liesBelow(agent_.string(), relative); }

    test::TempDir temp_;
    fs::path top_ = fs::canonical(temp_.path());
    fs::path agent_ = top_ / "agent";
};

TEST_F(LiesBelowDirectory, IsTrueOfWhatIsInTheDirectoryWhetherItIsThereOrNot) {
    EXPECT_TRUE(lies("dump.xml"));
    EXPECT_TRUE(lies("content/site.tar"));
    EXPECT_TRUE(lies("./content//site.tar"));
}

TEST_F(LiesBelowDirectory, IsTrueThroughALinkThatStaysInTheDirectory) {
    fs::create_directory_symlink(agent_ / "content", agent_ / "again");
    EXPECT_TRUE(lies("again/site.tar"));
}

TEST_F(LiesBelowDirectory, IsFalseThroughALinkOutOfTheDirectory) {
    fs::create_directory_symlink(top_ / "sites", agent_ / "content/sites");
    EXPECT_FALSE(lies("content/sites/site.tar"));
    fs::create_directory_symlink(top_ / "agent-of-another", agent_ / "other");
    EXPECT_FALSE(lies("other/site.tar"));
    fs::create_directory_symlink(top_, agent_ / "above");
    EXPECT_FALSE(lies("above/site.tar"));
}

TEST_F(LiesBelowDirectory, LooksAtWhereTheNameStandsAndNotAtWhatItLeadsTo) {
    fs::create_symlink(top_ / "sites/site.tar", agent_ / "site.tar");
    EXPECT_TRUE(lies("site.tar"));
}

TEST_F(LiesBelowDirectory, IsFalseWhereTheWayLeadsNowhere) {
    EXPECT_FALSE(lies("nothing/site.tar"));
    fs::create_directory_symlink("round", agent_ / "round");
    EXPECT_FALSE(lies("round/site.tar"));
}

TEST_F(LiesBelowDirectory, IsFalseOfEverythingWhereALinkHasTakenThePlaceOfTheDirectory) {
    fs::remove_all(agent_);
    fs::create_directory_symlink(top_ / "sites", agent_);
    EXPECT_FALSE(lies("site.tar"));
}

}  // namespace
}  // namespace korva::agent_check
