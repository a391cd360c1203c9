// SPDX-License-Identifier: Apache-2.0
#include "commons/signal_hold.h"

#include <gtest/gtest.h>

#include <poll.h>

#include <cerrno>

namespace korva {
namespace {

volatile std::sig_atomic_t ticks = 0;

void countTick(int /*signal*/) {
    ticks = ticks + 1;
}

class SignalHoldTest : public testing::Test {
  protected:
    SignalHoldTest() {
        ticks = 0;
        struct sigaction handler {};
        handler.sa_handler = &countTick;
        sigaction(SIGALRM, &handler, &before_);
    }
    ~SignalHoldTest() override { sigaction(SIGALRM, &before_, nullptr); }

    static bool isBlocked(int signal) {
        sigset_t mask;
        sigprocmask(SIG_BLOCK, nullptr, &mask);
        return sigismember(&mask, signal) == 1;
    }

  private:
    struct sigaction before_ {};
};

TEST_F(SignalHoldTest, KeepsATickBackUntilItEnds) {
    {
        const SignalHold hold;
        raise(SIGALRM);
        EXPECT_EQ(0, ticks);
    }
    EXPECT_EQ(1, ticks);
}

TEST_F(SignalHoldTest, HoldsNoOtherSignal) {
    const SignalHold hold;
    EXPECT_TRUE(isBlocked(SIGALRM));
    EXPECT_FALSE(isBlocked(SIGTERM));
    EXPECT_FALSE(isBlocked(SIGCHLD));
}

TEST_F(SignalHoldTest, EndsOnlyWithTheOutermostScope) {
    {
        const SignalHold outer;
        {
            const SignalHold inner;
            raise(SIGALRM);
        }
        EXPECT_EQ(0, ticks);
        EXPECT_TRUE(isBlocked(SIGALRM));
    }
    EXPECT_EQ(1, ticks);
    EXPECT_FALSE(isBlocked(SIGALRM));
}

TEST_F(SignalHoldTest, LetsATickIntoAWaitWithTheMaskForWaits) {
    const SignalHold outer;
    const SignalHold inner;
    raise(SIGALRM);
    const timespec generous{60, 0};
    errno = 0;
    EXPECT_EQ(-1, ppoll(nullptr, 0, &generous, &SignalHold::maskForWaits()));
    EXPECT_EQ(EINTR, errno);
    EXPECT_EQ(1, ticks);
}

TEST_F(SignalHoldTest, AdmitsATickThatHasCome) {
    const SignalHold outer;
    const SignalHold inner;
    SignalHold::admit();
    EXPECT_EQ(0, ticks);
    raise(SIGALRM);
    SignalHold::admit();
    EXPECT_EQ(1, ticks);
    EXPECT_TRUE(isBlocked(SIGALRM));
}

TEST_F(SignalHoldTest, LeavesASignalBlockedThatWasBlockedBefore) {
    sigset_t alarmOnly;
    sigemptyset(&alarmOnly);
    sigaddset(&alarmOnly, SIGALRM);
    sigset_t before;
    sigprocmask(SIG_BLOCK, &alarmOnly, &before);
    {
        const SignalHold hold;
        EXPECT_EQ(1, sigismember(&SignalHold::maskForWaits(), SIGALRM));
    }
    EXPECT_TRUE(isBlocked(SIGALRM));
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(SignalHoldTest, TakesTheMaskForWaitsAnewInEachOutermostScope) {
    { const SignalHold first; }
    sigset_t termOnly;
    sigemptyset(&termOnly);
    sigaddset(&termOnly, SIGTERM);
    sigset_t before;
    sigprocmask(SIG_BLOCK, &termOnly, &before);
    {
        const SignalHold second;
        EXPECT_EQ(1, sigismember(&SignalHold::maskForWaits(), SIGTERM));
        EXPECT_EQ(0, sigismember(&SignalHold::maskForWaits(), SIGALRM));
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace
}  // namespace korva
