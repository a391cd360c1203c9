// SPDX-License-Identifier: Apache-2.0
#include "fakes/fake_libssh2.h"
#include "ssh/libssh2pp.h"
#include "support/captured_log.h"
#include "support/loopback_listener.h"
#include "support/wait_probe.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <map>
#include <memory>
#include <string>

namespace korva::libssh2pp {
namespace {

using test::CapturedLog;
using test::debugRecord;
using test::FakeChannel;
using test::FakeLibssh2;
using test::FakeRead;
using test::SocketPair;
using test::WaitProbe;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class ChannelTest : public testing::Test {
  protected:
    ChannelTest()
        : session_(sockets_.ours(), false, false),
          script_(fake.nextChannel()),
          channel_(session_.openExecChannel("command", "command", Channel::kNonBlocking)) {
        fake.calls.clear();
        log.clear();
        waits.waits.clear();
    }

    Channel& channel() { return *channel_; }
    /// What the channel does; valid as long as the fake is.
    FakeChannel& script() { return script_; }
    void freeChannel() { channel_.reset(); }
    Session& session() { return session_; }

    std::string readOnce(int stream, std::size_t size = 100) {
        std::string buffer(size, '\0');
        buffer.resize(static_cast<std::size_t>(channel().read(stream, buffer.data(), size)));
        return buffer;
    }

    FakeLibssh2 fake;
    WaitProbe waits;
    CapturedLog log;

  private:
    SocketPair sockets_;
    Session session_;
    FakeChannel& script_;
    std::unique_ptr<Channel> channel_;
};

TEST_F(ChannelTest, RejectsANullPointer) {
    EXPECT_THROW(Channel(nullptr, session()), Exc<&InvalidHandle>);
}

using ChannelFree = ChannelTest;

TEST_F(ChannelFree, LogsAndFreesWithoutBlocking) {
    freeChannel();
    EXPECT_THAT(log.records(), ElementsAre(debugRecord("k.libssh2pp.Channel", "Closed")));
    EXPECT_THAT(fake.calls, ElementsAre("set_blocking 0", "free"));
    EXPECT_TRUE(script().freed);
}

TEST_F(ChannelFree, DoesNotWaitUntilARunningCommandEnds) {
    script().free.assign(1000, LIBSSH2_ERROR_EAGAIN);
    freeChannel();
    EXPECT_THAT(waits.waits, IsEmpty());
    EXPECT_LE(fake.countOf("free"), 3U);
}

TEST_F(ChannelFree, GivesAHalfSentPacketTimeToLeave) {
    script().free = {LIBSSH2_ERROR_EAGAIN};
    waits.writable = {false, false};
    freeChannel();
    ASSERT_EQ(1U, waits.waits.size());
    EXPECT_EQ(POLLIN | POLLOUT, waits.waits.front().events);
    EXPECT_TRUE(script().freed);
}

TEST_F(ChannelFree, DoesNotWaitForEverForASocketThatTakesNothing) {
    script().free.assign(1000, LIBSSH2_ERROR_EAGAIN);
    waits.writable.assign(1000, false);
    freeChannel();
    EXPECT_LE(waits.waits.size(), 2U);
}

TEST_F(ChannelFree, RepeatsWhenTheSocketHasJustBecomeWritable) {
    script().free = {LIBSSH2_ERROR_EAGAIN};
    freeChannel();
    EXPECT_TRUE(script().freed);
    EXPECT_THAT(waits.waits, IsEmpty());
}

using ChannelRead = ChannelTest;

TEST_F(ChannelRead, GivesBytesOfBothStreams) {
    script().reads[0] = {{"out"}};
    script().reads[1] = {{"err"}};
    EXPECT_EQ("err", readOnce(1));
    EXPECT_EQ("out", readOnce(0));
    EXPECT_TRUE(channel().eof());
}

TEST_F(ChannelRead, TakesNoErrorForTheEnd) {
    script().eofError = LIBSSH2_ERROR_BAD_USE;
    EXPECT_THROW(channel().eof(), Exc<&SshConnectionFault>);
}

TEST_F(ChannelRead, GivesNothingWhileNothingIsThere) {
    script().reads[0] = {FakeRead::nothingYet(), {"late"}};
    EXPECT_EQ("", readOnce(0));
    EXPECT_FALSE(channel().eof());
    EXPECT_EQ("late", readOnce(0));
}

TEST_F(ChannelRead, TakesEveryOtherNegativeResultForALostConnection) {
    for (const int error : {-1, LIBSSH2_ERROR_SOCKET_DISCONNECT, LIBSSH2_ERROR_SOCKET_RECV,
                            LIBSSH2_ERROR_TIMEOUT, LIBSSH2_ERROR_SOCKET_SEND}) {
        script().reads[0] = {FakeRead::failure(error)};
        try {
            readOnce(0);
            FAIL() << "no error for " << error;
        } catch (const Exc<&SshConnectionFault>& fault) {
            EXPECT_STREQ("Lost connection with the remote host", fault.what());
        }
    }
}

/// A channel of which libssh2 holds data that is on neither stream, so that it never tells of the end.
class ChannelWithAThirdStream : public ChannelTest {
  protected:
    ChannelWithAThirdStream() {
        script().neverEof = true;
        script().queued.assign(1000, 1);
        script().reads[0].assign(1000, FakeRead::end());
        script().reads[1].assign(1000, FakeRead::end());
    }
    /// What a command's output is until its end, or until `mostTurns` were in vain.
    std::string readToTheEnd(int mostTurns = 20) {
        std::string text;
        for (int turn = 0; turn < mostTurns && !channel().eof(); ++turn) {
            text += readOnce(0) + readOnce(1);
            channel().poll(5000);
        }
        return text;
    }
};

TEST_F(ChannelWithAThirdStream, IsAtItsEndOnceItIsClosedAndBothOthersAreRead) {
    script().reads[0].push_front({"last"});
    script().reads[1].insert(script().reads[1].begin() + 1, {"words"});
    script().pollEvents.assign(1000, LIBSSH2_POLLFD_CHANNEL_CLOSED);
    EXPECT_EQ("lastwords", readToTheEnd());
    EXPECT_TRUE(channel().eof());
    EXPECT_THAT(waits.waits, IsEmpty());
}

TEST_F(ChannelWithAThirdStream, IsNotAtItsEndBeforeItIsClosed) {
    readToTheEnd();
    EXPECT_FALSE(channel().eof());
    EXPECT_FALSE(waits.waits.empty()) << "it spins";
}

TEST_F(ChannelWithAThirdStream, LosesNothingThatTheLibraryCouldNotLookForYet) {
    script().pollEvents.assign(1000, LIBSSH2_POLLFD_CHANNEL_CLOSED);
    script().reads[0].assign(6, FakeRead::nothingYet());
    script().reads[0].push_back({"last"});
    script().reads[0].resize(1000, FakeRead::end());
    EXPECT_EQ("last", readToTheEnd());
    EXPECT_TRUE(channel().eof());
    EXPECT_FALSE(waits.waits.empty()) << "it spins";
}

using ChannelWrite = ChannelTest;

TEST_F(ChannelWrite, ReturnsWhatTheLibraryTook) {
    script().writes = {3, 2};
    EXPECT_EQ(3, channel().write("abcdef", 6));
    EXPECT_EQ(2, channel().write("def", 3));
    EXPECT_EQ(1, channel().write("f", 1));
    EXPECT_EQ("abcdef", script().input);
    EXPECT_THAT(fake.callsOf("write"), ElementsAre("write 0 6", "write 0 3", "write 0 1"));
}

TEST_F(ChannelWrite, ReturnsEveryFailureAsItIs) {
    for (const int error : {-1, -7, -39, LIBSSH2_ERROR_SOCKET_RECV}) {
        script().writes = {error};
        EXPECT_EQ(error, channel().write("abc", 3));
    }
}

TEST_F(ChannelWrite, RepeatsTheVerySameCallWhileAPacketIsSentInPart) {
    script().writes = {LIBSSH2_ERROR_EAGAIN, LIBSSH2_ERROR_EAGAIN, LIBSSH2_ERROR_EAGAIN,
                       LIBSSH2_ERROR_EAGAIN};
    waits.writable.assign(8, false);
    EXPECT_EQ(6, channel().write("abcdef", 6));
    // No other call of the library may come in between: it would fail, or spoil the packet.
    EXPECT_THAT(fake.calls, ElementsAre("write 0 6", "write 0 6", "write 0 6", "write 0 6", "write 0 6"));
    ASSERT_EQ(4U, waits.waits.size());
    for (const WaitProbe::Wait& wait : waits.waits) {
        EXPECT_EQ(POLLIN | POLLOUT, wait.events);
    }
}

TEST_F(ChannelWrite, TakesAResultOfZeroForNotYet) {
    script().writes = {0};
    EXPECT_EQ(6, channel().write("abcdef", 6));
}

TEST_F(ChannelWrite, LetsOutputBeReadOnceTheRemoteWindowIsFull) {
    int reads = 0;
    channel().setWhenFull([&] { ++reads; });
    script().writes = {LIBSSH2_ERROR_EAGAIN, LIBSSH2_ERROR_EAGAIN};
    EXPECT_EQ(6, channel().write("abcdef", 6));
    EXPECT_EQ(0, reads) << "two refusals need not be a full window";
    script().writes = {LIBSSH2_ERROR_EAGAIN, LIBSSH2_ERROR_EAGAIN, LIBSSH2_ERROR_EAGAIN};
    EXPECT_EQ(6, channel().write("abcdef", 6));
    EXPECT_EQ(1, reads);
    EXPECT_THAT(waits.waits, IsEmpty()) << "the read may have made room";
}

TEST_F(ChannelWrite, SleepsOnAFullWindowInsteadOfSpinning) {
    int reads = 0;
    channel().setWhenFull([&] { ++reads; });
    script().writes.assign(60, LIBSSH2_ERROR_EAGAIN);
    EXPECT_EQ(6, channel().write("abcdef", 6));
    EXPECT_GE(waits.waits.size(), 25U);
    EXPECT_GE(reads, 25);
    EXPECT_EQ(POLLIN, waits.waits.front().events);
    EXPECT_EQ(5000, waits.waits.front().timeoutMs);
}

TEST_F(ChannelWrite, ReadsQueuedOutputBeforeItSleepsOnAFullWindow) {
    script().reads[0] = {{"queued"}};
    channel().setWhenFull([&] { script().reads[0] = {FakeRead::nothingYet()}; });
    script().writes.assign(3, LIBSSH2_ERROR_EAGAIN);
    channel().write("abcdef", 6);
    EXPECT_THAT(waits.waits, IsEmpty());
}

TEST_F(ChannelWrite, SleepsOnAFullWindowThoughTheQueueSaysInVainThatThereIsOutput) {
    script().neverEof = true;
    script().queued.assign(1000, 1);
    script().writes.assign(60, LIBSSH2_ERROR_EAGAIN);
    channel().write("abcdef", 6);
    EXPECT_GE(waits.waits.size(), 20U);
}

TEST_F(ChannelWrite, DropsInputThatHasNoReaderAnyMore) {
    script().writes.assign(1000, LIBSSH2_ERROR_EAGAIN);
    script().pollEvents = {LIBSSH2_POLLFD_CHANNEL_CLOSED};
    EXPECT_EQ(6, channel().write("abcdef", 6));
    EXPECT_EQ(3, channel().write("ghi", 3));
    EXPECT_EQ("", script().input);
    EXPECT_EQ(3U, fake.countOf("write")) << "nothing is sent to a closed channel";
}

TEST_F(ChannelWrite, GoesOnAfterTheEndOfOutputAloneSinceTheCommandMayStillRead) {
    script().writes.assign(6, LIBSSH2_ERROR_EAGAIN);
    EXPECT_TRUE(channel().eof());
    EXPECT_EQ(6, channel().write("abcdef", 6));
    EXPECT_EQ("abcdef", script().input);
}

TEST_F(ChannelWrite, TellsALostConnectionWhileTheWindowIsFull) {
    script().writes.assign(1000, LIBSSH2_ERROR_EAGAIN);
    script().pollEvents = {LIBSSH2_POLLFD_CHANNEL_CLOSED | LIBSSH2_POLLFD_SESSION_CLOSED};
    EXPECT_THROW(channel().write("abcdef", 6), Exc<&SshConnectionFault>);
}

using ChannelSendEof = ChannelTest;

TEST_F(ChannelSendEof, RepeatsWhileItHasToWait) {
    script().sendEof.assign(7, LIBSSH2_ERROR_EAGAIN);
    channel().sendEof();
    EXPECT_EQ(8U, fake.countOf("send_eof"));
    EXPECT_FALSE(waits.waits.empty());
}

TEST_F(ChannelSendEof, RepeatsAtOnceWhenTheSocketHasJustBecomeWritable) {
    script().sendEof = {LIBSSH2_ERROR_EAGAIN};
    channel().sendEof();
    EXPECT_THAT(waits.waits, IsEmpty());
}

TEST_F(ChannelSendEof, TellsEveryFailureWithTheLibrarysMessage) {
    for (const int error :
         {-1, LIBSSH2_ERROR_SOCKET_SEND, LIBSSH2_ERROR_BAD_USE, LIBSSH2_ERROR_SOCKET_RECV}) {
        script().sendEof = {error};
        fake.lastErrorText = "Unable to send EOF on channel";
        try {
            channel().sendEof();
            FAIL() << "no error for " << error;
        } catch (const Exc<&UnableToSendEof>& failure) {
            EXPECT_STREQ("Unable to send EOF to SSH channel: Unable to send EOF on channel", failure.what());
        }
    }
}

using ChannelPoll = ChannelTest;

TEST_F(ChannelPoll, AsksTheLibraryWithoutATimeoutAndSleepsOnTheSocket) {
    script().neverEof = true;
    channel().poll(5000);
    EXPECT_THAT(fake.callsOf("poll "), ElementsAre("poll 1 2 1 0"));
    ASSERT_EQ(1U, waits.waits.size());
    EXPECT_EQ(5000, waits.waits.front().timeoutMs);
    EXPECT_EQ(POLLIN, waits.waits.front().events);
}

TEST_F(ChannelPoll, WaitsForAFullSocketToTakeBytesAsWell) {
    script().neverEof = true;
    waits.writable = {false};
    channel().poll(5000);
    EXPECT_EQ(POLLIN | POLLOUT, waits.waits.at(0).events);
}

TEST_F(ChannelPoll, DoesNotSleepOnQueuedData) {
    script().reads[1] = {{"queued"}};
    channel().poll(5000);
    EXPECT_THAT(waits.waits, IsEmpty());
}

TEST_F(ChannelPoll, DoesNotSleepOnDataThatTheLibrarysOwnPollHasQueued) {
    script().neverEof = true;
    fake.onCall = [this](const std::string& call) {
        if (call.starts_with("poll ")) {
            script().reads[0] = {{"just come"}};
        }
    };
    channel().poll(5000);
    EXPECT_THAT(waits.waits, IsEmpty());
}

TEST_F(ChannelPoll, DoesNotSleepOnTheEndOfOutput) {
    channel().poll(5000);
    EXPECT_THAT(waits.waits, IsEmpty());
}

TEST_F(ChannelPoll, SleepsAtTheSecondTurnWhenDataIsSaidToBeQueuedInVain) {
    script().neverEof = true;
    script().queued.assign(1000, 1);
    for (int turn = 0; turn < 20; ++turn) {
        EXPECT_EQ("", readOnce(0));
        EXPECT_EQ("", readOnce(1));
        channel().poll(5000);
    }
    EXPECT_GE(waits.waits.size(), 10U);
}

TEST_F(ChannelPoll, DoesNotCountARepeatAgainstDataThatCameMeanwhile) {
    script().neverEof = true;
    for (int turn = 0; turn < 5; ++turn) {
        script().queued = {1};
        channel().poll(5000);
        script().reads[0] = {{"x"}};
        readOnce(0);
    }
    EXPECT_THAT(waits.waits, IsEmpty());
}

TEST_F(ChannelPoll, TellsALostConnectionWhenSessionAndChannelAreBothClosed) {
    script().neverEof = true;
    script().pollEvents = {LIBSSH2_POLLFD_SESSION_CLOSED | LIBSSH2_POLLFD_CHANNEL_CLOSED |
                           LIBSSH2_POLLFD_POLLIN};
    EXPECT_THROW(channel().poll(5000), Exc<&SshConnectionFault>);
}

TEST_F(ChannelPoll, TakesNeitherFlagAloneForALostConnection) {
    script().neverEof = true;
    script().pollEvents = {LIBSSH2_POLLFD_SESSION_CLOSED, LIBSSH2_POLLFD_CHANNEL_CLOSED,
                           LIBSSH2_POLLFD_CHANNEL_CLOSED | LIBSSH2_POLLFD_POLLIN};
    channel().poll(5000);
    channel().poll(5000);
    channel().poll(5000);
    EXPECT_EQ(3U, fake.countOf("poll "));
}

using ChannelClosed = ChannelTest;

TEST_F(ChannelClosed, WaitsForTheRemoteSide) {
    script().waitClosed = {LIBSSH2_ERROR_EAGAIN};
    EXPECT_FALSE(channel().closed());
    EXPECT_TRUE(channel().closed());
}

TEST_F(ChannelClosed, TellsAConnectionLostBeforeTheStatusCame) {
    for (const int error :
         {-1, LIBSSH2_ERROR_SOCKET_RECV, LIBSSH2_ERROR_SOCKET_DISCONNECT, LIBSSH2_ERROR_INVAL}) {
        script().waitClosed = {error};
        EXPECT_THROW(channel().closed(), Exc<&SshConnectionFault>) << error;
    }
}

using ExitStatus = ChannelTest;

TEST_F(ExitStatus, IsTheCommands) {
    script().exitStatus = 7;
    EXPECT_EQ(7, channel().exitStatus());
    EXPECT_EQ(0U, fake.countOf("exit_signal")) << "asked only when the status is 0";
}

TEST_F(ExitStatus, IsZeroWithoutStatusAndSignal) {
    EXPECT_EQ(0, channel().exitStatus());
    EXPECT_EQ(1U, fake.countOf("exit_signal"));
}

TEST_F(ExitStatus, Is128PlusTheNumberOfTheSignalThatKilledTheCommand) {
    const std::map<std::string, int> numbers = {
        {"ABRT", SIGABRT}, {"ALRM", SIGALRM}, {"FPE", SIGFPE},   {"HUP", SIGHUP},   {"ILL", SIGILL},
        {"INT", SIGINT},   {"KILL", SIGKILL}, {"PIPE", SIGPIPE}, {"QUIT", SIGQUIT}, {"SEGV", SIGSEGV},
        {"TERM", SIGTERM}, {"USR1", SIGUSR1}, {"USR2", SIGUSR2}};
    for (const auto& [name, number] : numbers) {
        script().exitSignal = name;
        EXPECT_EQ(128 + number, channel().exitStatus()) << name;
    }
}

TEST_F(ExitStatus, Is255ForASignalThatIsNotNamedInTheProtocol) {
    for (const char* name : {"BUS", "WINCH", "SIGKILL", "kill", "NOSUCH@example.org"}) {
        script().exitSignal = name;
        EXPECT_EQ(255, channel().exitStatus()) << name;
    }
}

TEST_F(ExitStatus, Is255WhereTheLibraryHasNoMemoryForTheNameOfTheSignal) {
    script().exitSignal = "KILL";
    script().exitSignalError = LIBSSH2_ERROR_ALLOC;
    EXPECT_EQ(255, channel().exitStatus());
}

}  // namespace
}  // namespace korva::libssh2pp
