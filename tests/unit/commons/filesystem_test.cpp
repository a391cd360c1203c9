// SPDX-License-Identifier: Apache-2.0
#include "commons/filesystem.h"

#include "commons/system_error.h"
#include "commons/umask_scope.h"
#include "support/child_process.h"
#include "support/files.h"
#include "support/host_conf_redirect.h"
#include "support/syscall_filter.h"
#include "support/temp_dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

namespace korva {
namespace {

using test::redirectHostConf;
using test::statusOfChild;
using test::TempDir;
using test::writeFile;
using testing::ContainsRegex;
using testing::MatchesRegex;

constexpr uid_t kOwner = 12345;
constexpr gid_t kGroup = 23456;
constexpr mode_t kPermissions = 07777;

struct stat statusOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(0, ::stat(path.c_str(), &status)) << path;
    return status;
}

void expectDirectory(const std::string& path, uid_t owner, gid_t group, mode_t mode) {
    const struct stat status = statusOf(path);
    EXPECT_TRUE(S_ISDIR(status.st_mode)) << path;
    EXPECT_EQ(owner, status.st_uid) << path;
    EXPECT_EQ(group, status.st_gid) << path;
    EXPECT_EQ(mode, status.st_mode & kPermissions) << path;
}

class MakeDir : public testing::Test {
  protected:
    TempDir directory;
    UmaskScope umask{0};
};

TEST_F(MakeDir, GivesOwnerGroupAndModeToTheDirectoryAndItsMissingParents) {
    make_dir(directory / "a/b/c", kOwner, kGroup, 0750);
    for (const char* name : {"a", "a/b", "a/b/c"}) {
        expectDirectory(directory / name, kOwner, kGroup, 0750);
    }
}

TEST_F(MakeDir, TakesTheUmaskOffTheMode) {
    const UmaskScope strict(027);
    make_dir(directory / "a", kOwner, kGroup, 0777);
    expectDirectory(directory / "a", kOwner, kGroup, 0750);
}

TEST_F(MakeDir, LeavesExistingDirectoriesAsTheyAre) {
    ASSERT_EQ(0, ::mkdir((directory / "a").c_str(), 0700));
    make_dir(directory / "a/b", kOwner, kGroup, 0755);
    make_dir(directory / "a", kOwner, kGroup, 0755);
    expectDirectory(directory / "a", 0, 0, 0700);
    expectDirectory(directory / "a/b", kOwner, kGroup, 0755);
}

TEST_F(MakeDir, LeavesAnExistingFileAsItIs) {
    writeFile(directory / "file", "content");
    make_dir(directory / "file", kOwner, kGroup, 0755);
    EXPECT_EQ("content", test::readFile(directory / "file"));
    EXPECT_EQ(0U, statusOf(directory / "file").st_uid);
}

TEST_F(MakeDir, CreatesNothingBelowARegularFile) {
    writeFile(directory / "file", "content");
    make_dir(directory / "file/a/b", kOwner, kGroup, 0755);
    EXPECT_EQ("content", test::readFile(directory / "file"));
}

TEST_F(MakeDir, AcceptsSlashesInARowAndAtTheEnd) {
    make_dir(directory / "a//b/", kOwner, kGroup, 0750);
    expectDirectory(directory / "a/b", kOwner, kGroup, 0750);
    expectDirectory(directory / "a", kOwner, kGroup, 0750);
}

TEST_F(MakeDir, CreatesRelativePaths) {
    EXPECT_EQ(0, statusOfChild([this] {
                  ASSERT_EQ(0, ::chdir(directory.path().c_str()));
                  make_dir(std::string("one"), kOwner, kGroup, 0750);
                  make_dir(std::string("two/three"), kOwner, kGroup, 0750);
              }));
    expectDirectory(directory / "one", kOwner, kGroup, 0750);
    expectDirectory(directory / "two/three", kOwner, kGroup, 0750);
}

TEST_F(MakeDir, RestoresThePathThatItWasGiven) {
    std::string path = directory / "a/b";
    const std::string before = path;
    make_dir(path.data(), kOwner, kGroup, 0750);
    EXPECT_EQ(before, path);
    expectDirectory(before, kOwner, kGroup, 0750);
}

TEST_F(MakeDir, ReportsNothingForAnEmptyPath) {
    make_dir(std::string(), kOwner, kGroup, 0750);
}

TEST_F(MakeDir, DoesNotFollowADanglingLink) {
    ASSERT_EQ(0, ::symlink((directory / "target").c_str(), (directory / "link").c_str()));
    make_dir(directory / "link", kOwner, kGroup, 0750);
    EXPECT_FALSE(std::filesystem::exists(directory / "target"));
    struct stat link {};
    ASSERT_EQ(0, ::lstat((directory / "link").c_str(), &link));
    EXPECT_EQ(0U, link.st_uid);
}

TEST_F(MakeDir, CreatesNothingOfAPathThatCannotBeLookedUp) {
    std::string path = directory.path();
    while (path.size() <= 4096) {
        path += "/missing";
    }
    make_dir(path, kOwner, kGroup, 0750);
    EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

TEST(CheckInputFile, IsTrueForARegularFileOnly) {
    const TempDir directory;
    writeFile(directory / "file", "");
    EXPECT_TRUE(check_input_file((directory / "file").c_str()));
    EXPECT_FALSE(check_input_file(directory.path().c_str()));
    EXPECT_FALSE(check_input_file("/dev/null"));
    EXPECT_FALSE(check_input_file((directory / "missing").c_str()));
    EXPECT_FALSE(check_input_file((directory / "file/below").c_str()));
}

TEST(CheckInputFile, IsFalseForNoName) {
    EXPECT_FALSE(check_input_file(nullptr));
    EXPECT_FALSE(check_input_file(""));
    EXPECT_FALSE(check_input_file("", true));
}

TEST(CheckInputFile, FollowsLinks) {
    const TempDir directory;
    writeFile(directory / "file", "");
    ASSERT_EQ(0, ::symlink("file", (directory / "good").c_str()));
    ASSERT_EQ(0, ::symlink("missing", (directory / "dangling").c_str()));
    EXPECT_TRUE(check_input_file((directory / "good").c_str()));
    EXPECT_FALSE(check_input_file((directory / "dangling").c_str()));
}

TEST(CheckInputFile, IsFalseForASocket) {
    const TempDir directory;
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (directory / "socket").copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(0, ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    EXPECT_FALSE(check_input_file((directory / "socket").c_str()));
    ::close(fd);
}

class TempFileName : public testing::Test {
  protected:
    /// The name that is made for an empty directory under this host configuration, in a process of its own.
    std::string nameFor(const std::string& configuration) const {
        writeFile(directory / "ovn.conf", configuration);
        statusOfChild([this] {
            redirectHostConf(directory / "ovn.conf");
            std::string name;
            try {
                name = DVX_getTempFileName("", "x");
            } catch (const Exc<&CantCreateTempFile>& error) {
                name = error.what();
            }
            writeFile(directory / "name", name);
        });
        return test::readFile(directory / "name");
    }

    TempDir directory;
};

TEST_F(TempFileName, IsTheNameAndSixCharactersInADirectoryWithASlash) {
    EXPECT_THAT(DVX_getTempFileName(directory.path() + "/", "x"),
                MatchesRegex(directory.path() + "/x[A-Za-z0-9]{6}"));
}

TEST_F(TempFileName, GetsASlashBehindADirectoryWithoutOne) {
    EXPECT_THAT(DVX_getTempFileName(directory.path(), "x"),
                MatchesRegex(directory.path() + "/x[A-Za-z0-9]{6}"));
}

TEST_F(TempFileName, NamesANewEmptyFileThatOnlyItsOwnerReads) {
    const std::string path = DVX_getTempFileName(directory.path(), "x");
    const struct stat status = statusOf(path);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(0600U, status.st_mode & kPermissions);
    EXPECT_EQ(0, status.st_size);
    EXPECT_NE(path, DVX_getTempFileName(directory.path(), "x"));
}

TEST_F(TempFileName, MayBeLong) {
    const std::string part(200, 'a');
    const std::string deep = directory / part + "/" + part;
    std::filesystem::create_directories(deep);
    EXPECT_TRUE(check_input_file(DVX_getTempFileName(deep, part).c_str()));
}

TEST_F(TempFileName, GoesToTheConfiguredDirectoryWithoutOneOfItsOwn) {
    const std::string name = nameFor("DUMP_TMP_D " + directory.path() + "\n");
    EXPECT_THAT(name, MatchesRegex(directory.path() + "/x[A-Za-z0-9]{6}"));
    EXPECT_TRUE(check_input_file(name.c_str()));
}

TEST_F(TempFileName, GoesToTheProductsDirectoryWithoutAConfiguredOne) {
    std::filesystem::create_directories(directory / "DVX/tmp");
    EXPECT_THAT(nameFor("PRODUCT_ROOT_D " + directory.path() + "\n"),
                MatchesRegex(directory.path() + "/DVX/tmp/x[A-Za-z0-9]{6}"));
}

TEST_F(TempFileName, FailsWithTheTemplateAndTheReason) {
    try {
        DVX_getTempFileName(directory / "missing", "x");
        FAIL();
    } catch (const Exc<&CantCreateTempFile>& error) {
        EXPECT_EQ("Can not create temporary file with the template '" + (directory / "missing/xXXXXXX") +
                      "': No such file or directory.",
                  error.what());
    }
}

TEST(GetFreeSpace, IsWhatUnprivilegedUsersMayUse) {
    const TempDir directory;
    struct statvfs before {};
    ASSERT_EQ(0, ::statvfs(directory.path().c_str(), &before));
    const std::uint64_t free = getFreeSpace(directory.path());
    const auto expected = static_cast<double>(before.f_bavail) * static_cast<double>(before.f_frsize);
    // Others write to this file system meanwhile.
    EXPECT_NEAR(expected, static_cast<double>(free), 0.1 * expected + 1e9);
}

TEST(GetFreeSpace, FailsForAMissingPath) {
    try {
        getFreeSpace("/no/such/path");
        FAIL();
    } catch (const Exc<&CantStatFS>& error) {
        EXPECT_STREQ("Cannot stat filesystem containing /no/such/path: No such file or directory",
                     error.what());
    }
}

TEST(SyncFileAndDirectory, AcceptsFilesWithAndWithoutADirectory) {
    const TempDir directory;
    writeFile(directory / "file", "content");
    syncFileAndDirectory(directory / "file");
    EXPECT_EQ(0, statusOfChild([&] {
                  ASSERT_EQ(0, ::chdir(directory.path().c_str()));
                  syncFileAndDirectory("file");
              }));
}

/// The error of a sync of an existing file, in a process in which `spoil` was called before.
std::string syncFailure(const std::string& path, const std::function<void()>& spoil) {
    const TempDir result;
    statusOfChild([&] {
        std::string text = "no failure";
        spoil();
        try {
            syncFileAndDirectory(path);
        } catch (const SystemError& error) {
            text = error.what();
        }
        writeFile(result / "error", text);
    });
    return test::readFile(result / "error");
}

TEST(SyncFileAndDirectory, FailsWhenTheFileCannotBeFlushed) {
    const TempDir directory;
    writeFile(directory / "file", "content");
    EXPECT_EQ("Cannot flush " + (directory / "file") + ": Input/output error",
              syncFailure(directory / "file", [] { test::failSyscall(__NR_fsync, EIO); }));
}

TEST(SyncFileAndDirectory, FailsWhenTheDirectoryCannotBeOpened) {
    const TempDir directory;
    writeFile(directory / "file", "content");
    EXPECT_EQ("Cannot open " + directory.path() + ": Too many open files",
              syncFailure(directory / "file", [] { test::failDirectoryOpens(EMFILE); }));
}

TEST(SyncFileAndDirectory, AcceptsAFileSystemThatCannotFlush) {
    const TempDir directory;
    writeFile(directory / "file", "content");
    EXPECT_EQ("no failure", syncFailure(directory / "file", [] { test::failSyscall(__NR_fsync, EINVAL); }));
}

TEST(SyncFileAndDirectory, FailsForAMissingFile) {
    const TempDir directory;
    try {
        syncFileAndDirectory(directory / "missing");
        FAIL();
    } catch (const ExSystemError<ENOENT>& error) {
        EXPECT_EQ("Cannot open " + (directory / "missing") + ": No such file or directory", error.what());
    }
}

}  // namespace
}  // namespace korva
