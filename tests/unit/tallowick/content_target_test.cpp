// SPDX-License-Identifier: Apache-2.0
#include "tallowick/content_target.h"

#include "commons/regular_file.h"
#include "commons/session.h"
#include "commons/system_error.h"
#include "commons/umask_scope.h"
#include "fakes/fake_accounts.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <string>

namespace korva {
namespace {

namespace fs = std::filesystem;

using test::FakePanelAccount;
using test::readFile;
using test::TempDir;
using test::writeFile;
using testing::Optional;
using testing::StartsWith;

constexpr uid_t kUser = 4711;
constexpr gid_t kGroup = 4712;

class ContentTargetTest : public testing::Test {
  protected:
    ContentTarget targetIn(const std::string& directory) const { return {directory, {kUser, kGroup}}; }

    /// Where the directory of a listed path is.
    static std::string entered(ContentTarget& target, const std::string& listedPath) {
        const Descriptor directory = target.enterDirectoryOf(listedPath);
        return fs::read_symlink("/proc/self/fd/" + std::to_string(directory.fd()));
    }
    /// The error of a directory that cannot be entered.
    static std::string failureToEnter(ContentTarget& target, const std::string& listedPath) {
        try {
            target.enterDirectoryOf(listedPath);
        } catch (const SystemError& error) {
            return error.what();
        }
        return "no failure";
    }
    static void expectOwned(const std::string& path, uid_t user, gid_t group) {
        struct stat status {};
        ASSERT_EQ(0, ::stat(path.c_str(), &status)) << path;
        EXPECT_EQ(user, status.st_uid) << path;
        EXPECT_EQ(group, status.st_gid) << path;
        EXPECT_EQ(0755U, status.st_mode & 07777U) << path;
    }

    TempDir dir;
    SessionLifetimeController session{dir / "session"};
    const UmaskScope umask{022};
    ContentTarget target = targetIn(dir / "target");
    ContentTarget inSession = targetIn(dir / "session");
};

using ContentRefusal = ContentTargetTest;

TEST_F(ContentRefusal, IsThereForAPathThatNamesNoFile) {
    for (const char* path : {"", ".", "/", "./", "x/", "x//", "x/.", "x/./", "/."}) {
        EXPECT_THAT(target.refusal(path), Optional(std::string("the path names no file"))) << path;
    }
}

TEST_F(ContentRefusal, IsThereForAPathThatLeadsOut) {
    for (const char* path : {"..", "../x", "a/../b", "a/..", "/../x", "a//..//b", "./../x"}) {
        EXPECT_THAT(target.refusal(path), Optional(std::string("the path leads out of the directory")))
            << path;
    }
}

/// A name of that many bytes.
std::string repeated(const std::string& piece, std::size_t size) {
    std::string text;
    while (text.size() < size) {
        text += piece;
    }
    return text.substr(0, size);
}

TEST_F(ContentRefusal, IsThereForAPathThatIsLongerThanPathsCanBe) {
    for (const char* piece : {"n", "/", "a/", "{,}", "../", "dump-name/"}) {
        EXPECT_THAT(inSession.refusal(repeated(piece, 4096) + "x"),
                    Optional(std::string("the path is longer than paths can be")))
            << piece;
    }
    for (const char* piece : {"n", "/", "a/"}) {
        EXPECT_EQ(std::nullopt, inSession.refusal(repeated(piece, 4095) + "x")) << piece;
    }
}

TEST_F(ContentRefusal, IsThereForABraceExpressionThatALoginShellWouldExpand) {
    for (const char* path : {"{a,b}", "x{1..3}y", "a{b/c,d}e", "{,}", "{a{b,c}", "{a}{b,c}", "{..}"}) {
        EXPECT_THAT(target.refusal(path), Optional(std::string("the path holds a brace expression"))) << path;
    }
}

TEST_F(ContentRefusal, IsNotThereForBracesThatMeanNothing) {
    for (const char* path : {"{a}", "{a,b", "a,b}", "}a,b{", "{}a,b", "a..b}", "{", "}", ","}) {
        EXPECT_EQ(std::nullopt, target.refusal(path)) << path;
    }
}

TEST_F(ContentRefusal, IsNotThereForOrdinaryPathsHoweverTheyAreWritten) {
    for (const char* path : {"x", "a/b/c", "/etc/passwd", "./x", "a//b", "a/./b", "..x", "x..", "a/.../b",
                             "...", ".hidden", " ", "a b'c\"d$e", "line\nbreak", "\xE9", "-rf"}) {
        EXPECT_EQ(std::nullopt, target.refusal(path)) << path;
    }
}

TEST_F(ContentRefusal, IsThereForTheFilesOfThisRun) {
    for (const char* name : {"migration.status", "migration.log", "transfer.result", "transfer.result.1",
                             "transfer.result.12", "dump-name", "migration-result-name"}) {
        for (const std::string& path :
             {std::string(name), "./" + std::string(name), ".//./" + std::string(name),
              "/" + std::string(name), name + std::string("/below")}) {
            EXPECT_THAT(inSession.refusal(path),
                        Optional(std::string("the path is that of a file of this run")))
                << path;
        }
    }
}

TEST_F(ContentRefusal, IsNotThereForOtherFilesOfTheSession) {
    for (const char* path :
         {"dump.xml", "migration.result", "migration.result.1", "dumping-status.xml", "transfer.result.1a",
          "transfer.results", "migration.status.1", "sub/migration.status", "archives/dump-name"}) {
        EXPECT_EQ(std::nullopt, inSession.refusal(path)) << path;
    }
}

TEST_F(ContentRefusal, IsNotThereForSuchNamesInAnotherDirectory) {
    EXPECT_EQ(std::nullopt, target.refusal("migration.status"));
    fs::create_directory(dir / "target");
    EXPECT_EQ(std::nullopt, target.refusal("migration.status"));
}

TEST_F(ContentRefusal, IsThereForTheFilesOfThisRunBelowTheDirectoryToo) {
    const ContentTarget parent = targetIn(dir.path());
    for (const char* path : {"session/migration.status", "./session//dump-name",
                             "session/./transfer.result.3", "session/migration.log/below"}) {
        EXPECT_TRUE(parent.refusal(path)) << path;
    }
    EXPECT_EQ(std::nullopt, parent.refusal("session/dump.xml"));
    EXPECT_EQ(std::nullopt, parent.refusal("session/sub/migration.status"));
    EXPECT_EQ(std::nullopt, parent.refusal("migration.status"));
}

TEST_F(ContentRefusal, IsThereForTheFilesOfThisRunWhateverTheDirectoryIsCalled) {
    EXPECT_TRUE(targetIn(dir / "session/").refusal("migration.status"));
    EXPECT_TRUE(targetIn(dir / "session/archives/..").refusal("migration.status"));
    EXPECT_TRUE(targetIn(dir / "missing/../session").refusal("migration.status"));
    fs::create_symlink("session", dir / "link");
    EXPECT_TRUE(targetIn(dir / "link").refusal("migration.status"));
}

TEST_F(ContentRefusal, IsThereForNamesThatNewFilesGet) {
    const std::string name = ".incoming-17-01234567-89ab-4cde-8f01-23456789abcd";
    EXPECT_TRUE(target.refusal(name));
    EXPECT_TRUE(target.refusal("a/./" + name));
    EXPECT_TRUE(target.refusal(name + "/below"));
    EXPECT_EQ(std::nullopt, target.refusal(name + "x"));
}

TEST_F(ContentRefusal, CreatesNothing) {
    target.refusal("a/b/c");
    EXPECT_FALSE(fs::exists(dir / "target"));
}

using ContentDirectory = ContentTargetTest;

TEST_F(ContentDirectory, IsMadeWithItsParentsForThePanel) {
    EXPECT_EQ(dir / "target/a/b", entered(target, "a/b/file"));
    for (const char* name : {"target", "target/a", "target/a/b"}) {
        expectOwned(dir / name, kUser, kGroup);
    }
    EXPECT_FALSE(fs::exists(dir / "target/a/b/file"));
}

TEST_F(ContentDirectory, IsTheTargetItselfForABareName) {
    EXPECT_EQ(dir / "target", entered(target, "file"));
    EXPECT_EQ(dir / "target", entered(target, "./file"));
    EXPECT_EQ(dir / "target", entered(target, "/file"));
}

TEST_F(ContentDirectory, IsTheSameForEachWayToWriteIt) {
    EXPECT_EQ(dir / "target/a/b", entered(target, "/a//./b/file"));
}

TEST_F(ContentDirectory, IsLeftAsItIsWhenItExists) {
    fs::create_directories(dir / "target/a");
    EXPECT_EQ(dir / "target/a", entered(target, "a/file"));
    expectOwned(dir / "target", 0, 0);
    expectOwned(dir / "target/a", 0, 0);
}

TEST_F(ContentDirectory, IsMadeBelowMissingParentsOfTheTarget) {
    ContentTarget deep = targetIn(dir / "x/y");
    EXPECT_EQ(dir / "x/y/a", entered(deep, "a/file"));
    expectOwned(dir / "x", kUser, kGroup);
}

TEST_F(ContentDirectory, IsNotReachedThroughALinkBelowTheTarget) {
    fs::create_directory(dir / "target");
    fs::create_directory(dir / "outside");
    fs::create_directory_symlink("../outside", dir / "target/link");
    fs::create_directory_symlink("../nowhere", dir / "target/dangling");
    for (const char* name : {"link/file", "link/below/file", "dangling/file"}) {
        EXPECT_EQ((dir / "target/") + name + ": Not a directory", failureToEnter(target, name));
    }
    EXPECT_TRUE(fs::is_empty(dir / "outside"));
    EXPECT_FALSE(fs::exists(dir / "nowhere"));
    EXPECT_TRUE(fs::is_symlink(dir / "target/link"));
}

TEST_F(ContentDirectory, MayBeReachedThroughALinkThatIsTheTarget) {
    fs::create_directory(dir / "real");
    fs::create_directory_symlink("real", dir / "target");
    EXPECT_EQ(dir / "real/a", entered(target, "a/file"));
}

TEST_F(ContentDirectory, IsNotMadeWhereAFileOrFifoStands) {
    fs::create_directory(dir / "target");
    writeFile(dir / "target/file", "old");
    ASSERT_EQ(0, ::mkfifo((dir / "target/fifo").c_str(), 0600));
    EXPECT_EQ((dir / "target/file/x") + ": Not a directory", failureToEnter(target, "file/x"));
    EXPECT_EQ((dir / "target/fifo/x") + ": Not a directory", failureToEnter(target, "fifo/x"));
    EXPECT_EQ("old", readFile(dir / "target/file"));
    EXPECT_TRUE(fs::is_fifo(dir / "target/fifo"));
}

TEST_F(ContentDirectory, FailsWhereTheTargetCannotBe) {
    writeFile(dir / "file", "");
    ContentTarget impossible = targetIn(dir / "file/target");
    EXPECT_EQ((dir / "file/target") + ": Not a directory", failureToEnter(impossible, "x"));
}

TEST_F(ContentDirectory, FailsForANameThatIsTooLong) {
    const std::string name(256, 'x');
    EXPECT_THAT(failureToEnter(target, name + "/file"), StartsWith(dir / ("target/" + name)));
}

TEST_F(ContentDirectory, IsFreedOnceOfWhatKilledRunsLeft) {
    const std::string name = ".incoming-17-01234567-89ab-4cde-8f01-23456789abcd";
    fs::create_directories(dir / "target/a");
    writeFile(dir / "target/a/" + name, "half");
    writeFile(dir / "target/" + name, "half");
    entered(target, "a/file");
    EXPECT_FALSE(fs::exists(dir / "target/a/" + name));
    EXPECT_TRUE(fs::exists(dir / "target/" + name));
    entered(target, "file");
    EXPECT_FALSE(fs::exists(dir / "target/" + name));
    writeFile(dir / "target/a/" + name, "of another run");
    entered(target, "a/other");
    EXPECT_TRUE(fs::exists(dir / "target/a/" + name));
}

TEST_F(ContentTargetTest, TellsWhereAPathGoes) {
    EXPECT_EQ(dir / "target", target.directory());
    EXPECT_EQ(dir / "target/a/b", target.localPath("a/b"));
}

TEST_F(ContentTargetTest, MakesDirectoriesForAnAccount) {
    make_content_dir(dir / "a/b", {kUser, kGroup});
    expectOwned(dir / "a", kUser, kGroup);
    expectOwned(dir / "a/b", kUser, kGroup);
}

TEST(PanelAccount, IsThatOfThePanelOrRootWhereThereIsNone) {
    {
        const FakePanelAccount panel(kUser, kGroup);
        const PanelAccount account = panelAccount();
        EXPECT_EQ(kUser, account.user);
        EXPECT_EQ(kGroup, account.group);
    }
    const PanelAccount account = panelAccount();
    EXPECT_EQ(0U, account.user);
    EXPECT_EQ(0U, account.group);
}

TEST(OpenDirectory, OpensDirectoriesOnly) {
    const TempDir dir;
    writeFile(dir / "file", "");
    EXPECT_GE(openDirectory(dir.path()).fd(), 0);
    EXPECT_THROW(openDirectory(dir / "file"), SystemError);
    try {
        openDirectory(dir / "missing");
        FAIL() << "no error";
    } catch (const ExSystemError<ENOENT>& error) {
        EXPECT_EQ((dir / "missing") + ": No such file or directory", error.what());
    }
}

TEST(LastComponent, IsTheTextBehindTheLastSlash) {
    EXPECT_EQ("x", lastComponent("x"));
    EXPECT_EQ("c", lastComponent("a/b/c"));
    EXPECT_EQ("", lastComponent("a/"));
    EXPECT_EQ("", lastComponent(""));
}

}  // namespace
}  // namespace korva
