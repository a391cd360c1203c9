// SPDX-License-Identifier: Apache-2.0
#include "commons/session.h"

#include "commons/umask_scope.h"
#include "support/files.h"
#include "support/temp_dir.h"
#include "support/utility_log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace korva {
namespace {

using test::TempDir;
using test::UtilityLogCapture;
using test::writeFile;

constexpr mode_t kPermissions = 07777;

/// The uid of the panel's account, which sessions get as their group; 0 on a machine without the panel.
gid_t panelGroup() {
    const passwd* account = ::getpwnam("ovnadm");
    return account != nullptr ? account->pw_uid : 0;
}

void expectOwnDirectory(const std::string& path) {
    struct stat status {};
    ASSERT_EQ(0, ::stat(path.c_str(), &status)) << path;
    EXPECT_TRUE(S_ISDIR(status.st_mode)) << path;
    EXPECT_EQ(0U, status.st_uid) << path;
    EXPECT_EQ(panelGroup(), status.st_gid) << path;
    EXPECT_EQ(0750U, status.st_mode & kPermissions) << path;
}

std::string failureFor(const std::string& path) {
    try {
        const SessionFiles session(path);
    } catch (const Exc<&UnableToCreateSession>& error) {
        return error.what();
    }
    return "no failure";
}

class SessionDirectory : public testing::Test {
  protected:
    TempDir directory;
    UmaskScope umask{022};
    UtilityLogCapture log;
};

TEST_F(SessionDirectory, IsCreatedWithItsMissingParentsAndArchives) {
    const SessionFiles session(directory / "a/b/session");
    for (const char* name : {"a", "a/b", "a/b/session", "a/b/session/archives"}) {
        expectOwnDirectory(directory / name);
    }
}

TEST_F(SessionDirectory, KeepsOwnerAndModeWhenItExists) {
    ASSERT_EQ(0, ::mkdir((directory / "session").c_str(), 0711));
    ASSERT_EQ(0, ::chown((directory / "session").c_str(), 12345, 23456));
    const SessionFiles session(directory / "session");
    struct stat status {};
    ASSERT_EQ(0, ::stat((directory / "session").c_str(), &status));
    EXPECT_EQ(12345U, status.st_uid);
    EXPECT_EQ(23456U, status.st_gid);
    EXPECT_EQ(0711U, status.st_mode & kPermissions);
    expectOwnDirectory(directory / "session/archives");
    EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(directory / "session"), {}));
}

TEST_F(SessionDirectory, KeepsExistingArchivesAsTheyAre) {
    ASSERT_EQ(0, ::mkdir((directory / "archives").c_str(), 0700));
    writeFile(directory / "archives/kept", "x");
    const SessionFiles session(directory.path());
    struct stat status {};
    ASSERT_EQ(0, ::stat((directory / "archives").c_str(), &status));
    EXPECT_EQ(0700U, status.st_mode & kPermissions);
    EXPECT_EQ("x", test::readFile(directory / "archives/kept"));
}

TEST_F(SessionDirectory, AcceptsALinkToADirectory) {
    ASSERT_EQ(0, ::symlink(".", (directory / "link").c_str()));
    EXPECT_EQ("no failure", failureFor(directory / "link"));
}

TEST_F(SessionDirectory, DoesWithoutArchives) {
    writeFile(directory / "archives", "a file");
    EXPECT_EQ("no failure", failureFor(directory.path()));
    EXPECT_EQ("a file", test::readFile(directory / "archives"));
}

TEST_F(SessionDirectory, IsRefusedWhereARegularFileStands) {
    writeFile(directory / "file", "content");
    EXPECT_EQ("Unable to create session: Unable to create session directory", failureFor(directory / "file"));
    EXPECT_EQ("content", test::readFile(directory / "file"));
}

TEST_F(SessionDirectory, IsRefusedBelowARegularFile) {
    writeFile(directory / "file", "content");
    EXPECT_EQ("Unable to create session: Unable to create session directory",
              failureFor(directory / "file/session"));
}

TEST_F(SessionDirectory, IsRefusedWhereItCannotBeLookedUp) {
    ASSERT_EQ(0, ::symlink("loop", (directory / "loop").c_str()));
    EXPECT_EQ("Unable to create session: Unable to create session directory", failureFor(directory / "loop"));
    EXPECT_EQ("Unable to create session: Unable to create session directory",
              failureFor(directory / std::string(300, 'x')));
}

TEST_F(SessionDirectory, IsCreatedWithGroupZeroAndAMessageWithoutTheAccount) {
    const SessionFiles session(directory / "session");
    if (::getpwnam("ovnadm") == nullptr) {
        EXPECT_THAT(log.messages(),
                    testing::Each("Unable to find uid for user ovnadm: No such file or directory"));
        EXPECT_EQ(2U, log.messages().size());
    } else {
        EXPECT_TRUE(log.messages().empty());
    }
}

TEST_F(SessionDirectory, IsRemovedWithEverythingInIt) {
    const SessionFiles session(directory / "session");
    writeFile(session.getStatusFileName(), "x");
    writeFile(directory / "session/archives/one", "x");
    session.remove();
    EXPECT_FALSE(std::filesystem::exists(directory / "session"));
    EXPECT_TRUE(std::filesystem::exists(directory.path()));
}

TEST_F(SessionDirectory, NamesItsFiles) {
    const SessionFiles session(directory.path());
    const std::string path = directory.path();
    EXPECT_EQ(path, session.getDir());
    EXPECT_EQ(path + "/scout-result.xml", session.getScoutResultFileName());
    EXPECT_EQ(path + "/migration.status", session.getStatusFileName());
    EXPECT_EQ(path + "/migration.result", session.getResultFileName());
    EXPECT_EQ(path + "/agent-deployment.status", session.getDeploymentStatusFileName());
    EXPECT_EQ(path + "/dump.xml", session.getDumpFileName());
    EXPECT_EQ(path + "/restore.xml", session.getKorvaDumpFileName());
    EXPECT_EQ(path + "/migration.log", session.getLogFileName());
    EXPECT_EQ(path + "/dumping-status.xml", session.getDumpingStatusFileName());
    EXPECT_EQ(path, session.getCidFilesDir());
    EXPECT_EQ(path + "/cid_1.tar", session.getCidFile("cid_1.tar"));
}

TEST_F(SessionDirectory, KeepsATrailingSlashInItsNames) {
    const SessionFiles session(directory / "s/");
    EXPECT_EQ(directory / "s/", session.getDir());
    EXPECT_EQ(directory / "s//migration.status", session.getStatusFileName());
    expectOwnDirectory(directory / "s");
    expectOwnDirectory(directory / "s/archives");
}

TEST_F(SessionDirectory, IsTheSameForACopyOfItsObject) {
    const SessionFiles session(directory.path());
    const SessionFiles copy(session);  // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(session.getLogFileName(), copy.getLogFileName());
}

TEST_F(SessionDirectory, IsTheProcesssSessionWhileItsControllerLives) {
    EXPECT_EQ(nullptr, theSession);
    {
        const SessionLifetimeController controller(directory / "session");
        ASSERT_NE(nullptr, theSession);
        EXPECT_EQ(directory / "session", theSession->getDir());
    }
    EXPECT_EQ(nullptr, theSession);
    EXPECT_TRUE(std::filesystem::exists(directory / "session"));
}

TEST_F(SessionDirectory, IsNoSessionWhenItCannotBeCreated) {
    writeFile(directory / "file", "");
    EXPECT_THROW(SessionLifetimeController(directory / "file"), Exc<&UnableToCreateSession>);
    EXPECT_EQ(nullptr, theSession);
}

}  // namespace
}  // namespace korva
