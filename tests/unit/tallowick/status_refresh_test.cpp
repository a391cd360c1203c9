// SPDX-License-Identifier: Apache-2.0
#include "tallowick/status_refresh.h"

#include "commons/file_claim.h"
#include "commons/termination.h"
#include "ssh/libssh2pp.h"
#include "support/fake_flock.h"
#include "support/files.h"
#include "tallowick/actions.h"
#include "unit/tallowick/action_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <string>

namespace {

/// Takes place before each call of rename(2); null for nothing.
std::function<void()> beforeRename;

}  // namespace

// Stands in for the C library's: the linker takes the symbol of the program first.
extern "C" int rename(const char* from, const char* to) {
    if (beforeRename) {
        beforeRename();
    }
    return static_cast<int>(::syscall(SYS_rename, from, to));
}

namespace korva {
namespace {

using test::beforeFlock;
using test::FakeResult;
using test::readFile;
using test::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;

class RefreshedAction : public Action {
  public:
    RefreshedAction() : Action(false) {}
    void execute() override {}
    using Action::getSsh;
};

/// Seconds until the next tick, which is called off; 0 when none was set.
unsigned takeTimer() {
    return ::alarm(0);
}

class StatusRefresh : public test::ActionFixture {
  protected:
    StatusRefresh() { action.setConfig(&cfg); }
    ~StatusRefresh() override {
        takeTimer();
        std::signal(SIGALRM, SIG_DFL);
        pAction = nullptr;
        beforeFlock = nullptr;
        beforeRename = nullptr;
    }

    std::string localStatus() const { return dir / "session/dumping-status.xml"; }
    std::string unfinished() const { return localStatus() + ".tmp"; }
    FakeResult& download() { return ssh.results["get /agent/dumping-status.xml " + unfinished()]; }
    static struct sigaction handler() {
        struct sigaction present {};
        sigaction(SIGALRM, nullptr, &present);
        return present;
    }

    RefreshedAction action;
};

TEST_F(StatusRefresh, TickDoesNothingWithoutAnAction) {
    action.getSsh();
    update_status(SIGALRM);
    EXPECT_EQ(0U, takeTimer());
    EXPECT_EQ(SIG_DFL, handler().sa_handler);
    ssh.open->serveAlarm();
    EXPECT_THAT(ssh.commands, IsEmpty());
}

TEST_F(StatusRefresh, TickRegistersTheActionWithItsConnectionAndArmsTheNextTick) {
    action.getSsh();
    pAction = &action;
    update_status(SIGALRM);
    EXPECT_THAT(ssh.commands, IsEmpty()) << "no network in the handler";
    EXPECT_EQ(5U, takeTimer());
    EXPECT_EQ(&update_status, handler().sa_handler);
    ssh.open->serveAlarm();
    EXPECT_EQ(1U, ssh.commands.size());
}

TEST_F(StatusRefresh, TickOnlyArmsTheNextOneBeforeThereIsAConnection) {
    pAction = &action;
    update_status(SIGALRM);
    EXPECT_EQ(5U, takeTimer());
    EXPECT_THAT(ssh.connections, IsEmpty());
}

TEST_F(StatusRefresh, ScopeStartsTheTicksAndEndsThem) {
    {
        const StatusRefreshScope scope(action);
        EXPECT_EQ(&action, pAction);
        EXPECT_EQ(&update_status, handler().sa_handler);
        EXPECT_EQ(0, handler().sa_flags & SA_RESTART);
        EXPECT_EQ(5U, takeTimer());
        raise(SIGALRM);
        EXPECT_EQ(5U, takeTimer());
    }
    EXPECT_EQ(nullptr, pAction);
    raise(SIGALRM);
    EXPECT_EQ(0U, takeTimer()) << "a tick after the end finds nothing to do";
}

TEST_F(StatusRefresh, DownloadsBesideTheLocalCopyAndReplacesItAsAWhole) {
    writeFile(localStatus(), "old");
    download().out = "new";
    download().meanwhile = [this] { EXPECT_EQ("old", readFile(localStatus())); };
    action.doAlarm();
    EXPECT_THAT(ssh.lines(), ElementsAre("get /agent/dumping-status.xml " + unfinished()));
    EXPECT_EQ("new", readFile(localStatus()));
    EXPECT_FALSE(std::filesystem::exists(unfinished()));
}

TEST_F(StatusRefresh, GoesOnAfterARefresh) {
    pAction = &action;
    action.doAlarm();
    EXPECT_EQ(&action, pAction);
    EXPECT_EQ(5U, takeTimer());
}

TEST_F(StatusRefresh, IsNotEnteredAgainWhileItDownloads) {
    const StatusRefreshScope scope(action);
    takeTimer();
    action.getSsh()->setAlarm(&action);
    download().meanwhile = [this] {
        EXPECT_EQ(nullptr, pAction);
        raise(SIGALRM);
        EXPECT_EQ(0U, takeTimer());
        ssh.open->serveAlarm();
    };
    ssh.open->serveAlarm();
    EXPECT_EQ(1U, ssh.commands.size());
}

TEST_F(StatusRefresh, HappensAtMostOnceForATick) {
    const StatusRefreshScope scope(action);
    action.getSsh();
    raise(SIGALRM);
    ssh.open->serveAlarm();
    ssh.open->serveAlarm();
    EXPECT_EQ(1U, ssh.commands.size());
    raise(SIGALRM);
    ssh.open->serveAlarm();
    EXPECT_EQ(2U, ssh.commands.size());
}

TEST_F(StatusRefresh, LeavesNothingToServeAfterItsEnd) {
    action.getSsh();
    {
        const StatusRefreshScope scope(action);
        raise(SIGALRM);
    }
    ssh.open->serveAlarm();
    EXPECT_TRUE(ssh.commands.empty());
}

TEST_F(StatusRefresh, GoesOnWhenTheDumperHasNotWrittenItsStatusYet) {
    pAction = &action;
    writeFile(localStatus(), "old");
    download().status = 1;
    action.doAlarm();
    EXPECT_EQ(&action, pAction);
    EXPECT_EQ(5U, takeTimer());
    EXPECT_EQ("old", readFile(localStatus()));
}

TEST_F(StatusRefresh, GoesOnWhenTheLocalCopyCannotBeReplaced) {
    pAction = &action;
    std::filesystem::create_directories(localStatus() + "/occupied");
    action.doAlarm();
    EXPECT_EQ(&action, pAction);
    EXPECT_EQ(5U, takeTimer());
}

TEST_F(StatusRefresh, StopsAfterAFailedFetchWithoutDisturbingTheDump) {
    pAction = &action;
    download().meanwhile = [] { throw Exc<&SshConnectionFault>("context", "file", 1); };
    EXPECT_NO_THROW(action.doAlarm());
    EXPECT_EQ(nullptr, pAction);
    EXPECT_EQ(0U, takeTimer());
    ssh.open->serveAlarm();
    EXPECT_EQ(1U, ssh.commands.size());
}

TEST_F(StatusRefresh, GivesTheSpaceOfAFailedFetchBack) {
    writeFile(localStatus(), "old");
    download().meanwhile = [this] {
        writeFile(unfinished(), "half");
        throw Exc<&SshConnectionFault>("context", "file", 1);
    };
    action.doAlarm();
    EXPECT_FALSE(std::filesystem::exists(unfinished()));
    EXPECT_EQ("old", readFile(localStatus()));
}

TEST_F(StatusRefresh, RemovesNothingButAFileAfterAFailedFetch) {
    download().meanwhile = [this] {
        std::filesystem::remove(unfinished());
        std::filesystem::create_symlink("somewhere", unfinished());
        throw Exc<&SshConnectionFault>("context", "file", 1);
    };
    action.doAlarm();
    EXPECT_TRUE(std::filesystem::is_symlink(unfinished()));
}

TEST_F(StatusRefresh, StopsWhereTheNewCopyCannotBeAFileAndLeavesWhatIsThere) {
    pAction = &action;
    std::filesystem::create_symlink("somewhere", unfinished());
    EXPECT_NO_THROW(action.doAlarm());
    EXPECT_EQ(nullptr, pAction);
    EXPECT_EQ(0U, takeTimer());
    EXPECT_TRUE(std::filesystem::is_symlink(unfinished()));
}

TEST_F(StatusRefresh, LeavesTheCopyToAnotherRunThatIsAtItAndGoesOn) {
    pAction = &action;
    writeFile(unfinished(), "half of theirs");
    const FileClaim theirs(unfinished());
    action.doAlarm();
    EXPECT_THAT(ssh.commands, IsEmpty());
    EXPECT_EQ("half of theirs", readFile(unfinished()));
    EXPECT_FALSE(std::filesystem::exists(localStatus()));
    EXPECT_EQ(&action, pAction);
    EXPECT_EQ(5U, takeTimer());
}

TEST_F(StatusRefresh, WritesNothingIntoACopyThatAnotherRunHasFinishedMeanwhile) {
    writeFile(unfinished(), "theirs");
    beforeFlock = [this] { std::filesystem::rename(unfinished(), localStatus()); };
    download().out = "ours";
    action.doAlarm();
    EXPECT_EQ("theirs", readFile(localStatus()));
    EXPECT_FALSE(std::filesystem::exists(unfinished()));
}

TEST_F(StatusRefresh, KeepsOtherRunsFromItsCopyUntilThatHasItsFinalName) {
    int looks = 0;
    const auto look = [&] {
        ++looks;
        EXPECT_FALSE(FileClaim(unfinished()).isHeld());
    };
    download().meanwhile = look;
    beforeRename = look;
    action.doAlarm();
    EXPECT_EQ(2, looks);
    EXPECT_TRUE(FileClaim(unfinished()).isHeld());
}

TEST_F(StatusRefresh, FetchesAnewWhatARunThatWasKilledHasLeft) {
    writeFile(unfinished(), "half of a longer text");
    download().out = "whole";
    action.doAlarm();
    EXPECT_EQ("whole", readFile(localStatus()));
}

TEST_F(StatusRefresh, StopsAfterAnyOtherException) {
    pAction = &action;
    download().meanwhile = [] { throw 1; };
    EXPECT_NO_THROW(action.doAlarm());
    EXPECT_EQ(nullptr, pAction);
    EXPECT_EQ(0U, takeTimer());
}

TEST_F(StatusRefresh, DoesNotLoseARequestToEndTheRun) {
    pAction = &action;
    download().meanwhile = [] { throw MigrationTerminatedException(); };
    EXPECT_THROW(action.doAlarm(), MigrationTerminatedException);
}

TEST_F(StatusRefresh, IsRegisteredOnlyWhereThereIsAConnection) {
    EXPECT_NO_THROW(action.setAlarmFunction());
    EXPECT_THAT(ssh.connections, IsEmpty());
    action.getSsh();
    action.setAlarmFunction();
    ssh.open->serveAlarm();
    EXPECT_EQ(1U, ssh.commands.size());
}

}  // namespace
}  // namespace korva
