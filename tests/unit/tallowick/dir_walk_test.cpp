// SPDX-License-Identifier: Apache-2.0
#include "tallowick/dir_walk.h"

#include "support/captured_log.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace korva {
namespace {

namespace fs = std::filesystem;

using test::CapturedLog;
using test::LogRecord;
using test::TempDir;
using test::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

class DirWalk : public testing::Test {
  protected:
    DirWalk() { fs::create_directory(top); }

    /// The local paths below the top and their remote paths, in the order of the visits.
    std::vector<std::pair<std::string, std::string>> walk() {
        std::vector<std::pair<std::string, std::string>> visits;
        recursive_dir_walk_sync(top, "/remote", [&](const fs::path& local, const std::string& remote) {
            visits.emplace_back(local.string().substr(top.size()), remote);
            return local != closed;
        });
        return visits;
    }
    /// The remote paths alone.
    std::vector<std::string> remotePaths() {
        std::vector<std::string> paths;
        for (const auto& [local, remote] : walk()) {
            paths.push_back(remote);
        }
        return paths;
    }
    static LogRecord skipped(const std::string& path, const std::string& reason) {
        return {"k.SendAgentAction", log4cpp::Priority::WARN, "skipping " + path + ": " + reason};
    }

    TempDir dir;
    const std::string top = dir / "top";
    fs::path closed;  ///< not to be descended into
    CapturedLog log;
};

TEST_F(DirWalk, VisitsTheTopAndWhatIsBelowWithTheSameRelativePath) {
    fs::create_directories(top + "/a/b");
    writeFile(top + "/a/b/file", "");
    EXPECT_THAT(walk(), ElementsAre(Pair("", "/remote"), Pair("/a", "/remote/a"), Pair("/a/b", "/remote/a/b"),
                                    Pair("/a/b/file", "/remote/a/b/file")));
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(DirWalk, VisitsEntriesInTheOrderInWhichTheyAreListed) {
    std::vector<std::string> listed = {"/remote"};
    for (int i = 0; i < 50; ++i) {
        writeFile(top + "/file" + std::to_string(i * 7919 % 1000), "");
    }
    for (const auto& entry : fs::directory_iterator(top)) {
        listed.push_back("/remote/" + entry.path().filename().string());
    }
    EXPECT_EQ(listed, remotePaths());
}

TEST_F(DirWalk, TakesNamesAsTheyAre) {
    for (const char* name : {" ", "a'b\"c$d", "line\nbreak", "\xC3\xA9", "\xE9", ".hidden"}) {
        writeFile(top + "/" + name, "");
    }
    EXPECT_THAT(remotePaths(),
                UnorderedElementsAre("/remote", "/remote/ ", "/remote/a'b\"c$d", "/remote/line\nbreak",
                                     "/remote/\xC3\xA9", "/remote/\xE9", "/remote/.hidden"));
}

TEST_F(DirWalk, DoesNothingWithoutADirectory) {
    fs::remove(top);
    EXPECT_THAT(walk(), IsEmpty());
    writeFile(top, "");
    EXPECT_THAT(walk(), IsEmpty());
    fs::remove(top);
    fs::create_symlink("missing", top);
    EXPECT_THAT(walk(), IsEmpty());
}

TEST_F(DirWalk, FollowsALinkAsItsTop) {
    fs::create_directory(dir / "target");
    writeFile(dir / "target/file", "");
    fs::remove(top);
    fs::create_symlink("target", top);
    EXPECT_THAT(remotePaths(), ElementsAre("/remote", "/remote/file"));
}

TEST_F(DirWalk, DescendsOnlyWhereTheVisitorSaysSo) {
    fs::create_directories(top + "/a");
    writeFile(top + "/a/file", "");
    closed = top + "/a";
    EXPECT_THAT(remotePaths(), ElementsAre("/remote", "/remote/a"));
    closed = top;
    EXPECT_THAT(remotePaths(), ElementsAre("/remote"));
}

TEST_F(DirWalk, TakesALinkForTheFileOrDirectoryThatItLeadsTo) {
    fs::create_directory(dir / "elsewhere");
    writeFile(dir / "elsewhere/file", "");
    fs::create_symlink(dir / "elsewhere", top + "/directory");
    fs::create_symlink(dir / "elsewhere/file", top + "/link");
    EXPECT_THAT(walk(), UnorderedElementsAre(Pair("", "/remote"), Pair("/directory", "/remote/directory"),
                                             Pair("/directory/file", "/remote/directory/file"),
                                             Pair("/link", "/remote/link")));
}

TEST_F(DirWalk, SkipsADirectoryThatLeadsBackToItself) {
    fs::create_directories(top + "/a/b");
    fs::create_symlink("../..", top + "/a/b/up");
    fs::create_symlink(".", top + "/a/here");
    EXPECT_THAT(remotePaths(), UnorderedElementsAre("/remote", "/remote/a", "/remote/a/b"));
    EXPECT_THAT(log.records(), UnorderedElementsAre(skipped(top + "/a/b/up", "it leads back to itself"),
                                                    skipped(top + "/a/here", "it leads back to itself")));
}

TEST_F(DirWalk, VisitsADirectoryOnceForEachPathThatLeadsToIt) {
    fs::create_directories(top + "/a");
    writeFile(top + "/a/file", "");
    fs::create_symlink("a", top + "/b");
    EXPECT_THAT(remotePaths(), UnorderedElementsAre("/remote", "/remote/a", "/remote/a/file", "/remote/b",
                                                    "/remote/b/file"));
}

TEST_F(DirWalk, SkipsWhatIsNeitherAFileNorADirectory) {
    ASSERT_EQ(0, ::mkfifo((top + "/fifo").c_str(), 0600));
    fs::create_symlink("/dev/null", top + "/device");
    fs::create_symlink("missing", top + "/dangling");
    fs::create_symlink("itself", top + "/itself");
    writeFile(top + "/file", "");
    EXPECT_THAT(remotePaths(), ElementsAre("/remote", "/remote/file"));
    const std::string reason = "neither a file nor a directory";
    EXPECT_THAT(log.records(),
                UnorderedElementsAre(skipped(top + "/fifo", reason), skipped(top + "/device", reason),
                                     skipped(top + "/dangling", reason), skipped(top + "/itself", reason)));
}

TEST_F(DirWalk, FailsWithADirectoryThatCannotBeListed) {
    fs::create_directory(top + "/a");
    EXPECT_THROW(recursive_dir_walk_sync(top, "/remote",
                                         [&](const fs::path& local, const std::string& /*remote*/) {
                                             if (local != top) {
                                                 fs::remove(local);
                                             }
                                             return true;
                                         }),
                 fs::filesystem_error);
}

}  // namespace
}  // namespace korva
