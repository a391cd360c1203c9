// SPDX-License-Identifier: Apache-2.0
#include "ssh/socket_wait.h"

#include "commons/signal_hold.h"
#include "support/loopback_listener.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/time.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <string>

namespace korva {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::SocketPair;

constexpr int kFarTooLongMs = 60000;

volatile std::sig_atomic_t ticks = 0;

/// Ticks with SIGALRM every few milliseconds while it lives, without SA_RESTART.
class TickingTimer {
  public:
    TickingTimer() {
        ticks = 0;
        struct sigaction handler {};
        handler.sa_handler = [](int) { ticks = ticks + 1; };
        sigaction(SIGALRM, &handler, &before_);
        set(5000);
    }
    TickingTimer(const TickingTimer&) = delete;
    TickingTimer& operator=(const TickingTimer&) = delete;
    ~TickingTimer() {
        set(0);
        sigaction(SIGALRM, &before_, nullptr);
    }

  private:
    static void set(suseconds_t microseconds) {
        const itimerval interval{{0, microseconds}, {0, microseconds}};
        setitimer(ITIMER_REAL, &interval, nullptr);
    }

    struct sigaction before_ {};
};

class SocketWait : public testing::Test {
  protected:
    /// Leaves no room for a single byte.
    void fill() {
        fcntl(sockets_.ours(), F_SETFL, O_NONBLOCK);
        const std::string bytes(65536, 'x');
        while (::write(sockets_.ours(), bytes.data(), bytes.size()) > 0) {
        }
    }
    void drain() {
        fcntl(sockets_.theirs(), F_SETFL, O_NONBLOCK);
        std::string bytes(65536, 'x');
        while (::read(sockets_.theirs(), bytes.data(), bytes.size()) > 0) {
        }
    }
    void receiveAByte() { ASSERT_EQ(1, ::write(sockets_.theirs(), "x", 1)); }
    int fd() const { return sockets_.ours(); }
    void loseTheOtherSide() { ::shutdown(sockets_.theirs(), SHUT_RDWR); }

    template <typename Wait>
    static milliseconds durationOf(Wait wait) {
        const auto begin = steady_clock::now();
        wait();
        return std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
    }

  private:
    SocketPair sockets_;
    SignalHold hold_;
};

TEST_F(SocketWait, TellsWhetherASocketTakesBytes) {
    EXPECT_TRUE(isWritable(fd()));
    fill();
    EXPECT_FALSE(isWritable(fd()));
    drain();
    EXPECT_TRUE(isWritable(fd()));
}

TEST_F(SocketWait, CallsALostConnectionWritableSoThatTheNextWriteTells) {
    fill();
    loseTheOtherSide();
    EXPECT_TRUE(isWritable(fd()));
}

TEST_F(SocketWait, SleepsNoLongerThanAllowed) {
    EXPECT_GE(durationOf([this] { waitForSocket(fd(), 30); }), milliseconds(25));
}

TEST_F(SocketWait, EndsWhenBytesAreThere) {
    receiveAByte();
    EXPECT_LT(durationOf([this] { waitForSocket(fd(), kFarTooLongMs); }), milliseconds(kFarTooLongMs));
}

TEST_F(SocketWait, EndsWhenTheOtherSideIsGone) {
    loseTheOtherSide();
    EXPECT_LT(durationOf([this] { waitForSocket(fd(), kFarTooLongMs); }), milliseconds(kFarTooLongMs));
}

TEST_F(SocketWait, EndsWithATick) {
    const TickingTimer timer;
    waitForSocket(fd(), kFarTooLongMs);
    EXPECT_GE(ticks, 1);
}

TEST_F(SocketWait, EndsWhenAFullSocketTakesBytesAgain) {
    fill();
    // The timer's handler cannot drain; a child does it after the sleep has begun.
    const pid_t child = ::fork();
    if (child == 0) {
        ::poll(nullptr, 0, 20);
        drain();
        ::_exit(0);
    }
    EXPECT_LT(durationOf([this] { waitForSocket(fd(), kFarTooLongMs); }), milliseconds(kFarTooLongMs));
    ::waitpid(child, nullptr, 0);
}

}  // namespace
}  // namespace korva
