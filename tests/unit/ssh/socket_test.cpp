// SPDX-License-Identifier: Apache-2.0
#include "commons/socket.h"

#include "support/captured_log.h"
#include "support/loopback_listener.h"
#include "support/network_faults.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace korva {
namespace {

using test::CapturedLog;
using test::debugRecord;
using test::errorRecord;
using test::LoopbackListener;
using test::NetworkFaults;
using testing::Contains;
using testing::ElementsAre;

constexpr const char* kHost = "127.0.0.1";
constexpr const char* kCategory = "k.libssh2pp.Socket";

int optionOf(int fd, int level, int option) {
    int value = -1;
    socklen_t size = sizeof(value);
    EXPECT_EQ(0, getsockopt(fd, level, option, &value, &size));
    return value;
}

template <auto Tag>
void expectError(const NetworkFaults& faults, const std::string& message) {
    CapturedLog log;
    try {
        const Socket socket(kHost, 22);
        ADD_FAILURE() << "connected";
    } catch (const Exc<Tag>& error) {
        EXPECT_EQ(message, error.what());
    }
    EXPECT_THAT(log.records(),
                Contains(errorRecord(kCategory, std::string("Unable to open socket to 127.0.0.1:22: ") +
                                                    std::strerror(faults.connectError) + "\n")));
}

TEST(Socket, ConnectsInBlockingModeAndLogsItsSteps) {
    const LoopbackListener listener;
    CapturedLog log;
    const Socket socket(kHost, listener.port());
    EXPECT_EQ(0, fcntl(socket.fd(), F_GETFL) & O_NONBLOCK);
    EXPECT_THAT(
        log.records(),
        ElementsAre(
            debugRecord(kCategory, "Connecting to 127.0.0.1:" + std::to_string(listener.port()) + "\n"),
            errorRecord(kCategory, "Resolving 127.0.0.1"), debugRecord(kCategory, "Connected")));
}

TEST(Socket, ClosesTheConnectionAtItsEnd) {
    const LoopbackListener listener;
    int fd = -1;
    int peer = -1;
    {
        const Socket socket(kHost, listener.port());
        fd = socket.fd();
        peer = listener.accept();
    }
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    char byte = 0;
    EXPECT_EQ(0, ::read(peer, &byte, 1));
    ::close(peer);
}

TEST(Socket, IsNotInheritedByChildren) {
    const LoopbackListener listener;
    const Socket socket(kHost, listener.port());
    EXPECT_EQ(FD_CLOEXEC, fcntl(socket.fd(), F_GETFD));
}

TEST(Socket, SendsSmallPacketsAtOnce) {
    const LoopbackListener listener;
    const Socket socket(kHost, listener.port());
    EXPECT_NE(0, optionOf(socket.fd(), IPPROTO_TCP, TCP_NODELAY));
}

TEST(Socket, NoticesAPeerThatVanished) {
    const LoopbackListener listener;
    const Socket socket(kHost, listener.port());
    EXPECT_NE(0, optionOf(socket.fd(), SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(60, optionOf(socket.fd(), IPPROTO_TCP, TCP_KEEPIDLE));
    EXPECT_EQ(15, optionOf(socket.fd(), IPPROTO_TCP, TCP_KEEPINTVL));
    EXPECT_EQ(4, optionOf(socket.fd(), IPPROTO_TCP, TCP_KEEPCNT));
    EXPECT_EQ(120000, optionOf(socket.fd(), IPPROTO_TCP, TCP_USER_TIMEOUT));
}

TEST(Socket, LeavesTheTimeToConnectToTheSystem) {
    const LoopbackListener listener;
    NetworkFaults faults;
    const Socket socket(kHost, listener.port());
    EXPECT_EQ(0, faults.userTimeoutAtConnect);
}

TEST(Socket, KeepsTicksBackWhileItResolvesAndConnects) {
    const LoopbackListener listener;
    NetworkFaults faults;
    const Socket socket(kHost, listener.port());
    EXPECT_TRUE(faults.alarmHeldWhileResolving);
    EXPECT_TRUE(faults.alarmHeldWhileConnecting);
}

TEST(Socket, TellsAHostThatDoesNotResolve) {
    NetworkFaults faults;
    faults.resolveCode = EAI_NONAME;
    CapturedLog log;
    try {
        const Socket socket("no.such.host", 22);
        FAIL() << "connected";
    } catch (const Exc<&HostNotFound>& error) {
        EXPECT_STREQ("Unable to resolve hostname no.such.host: Name or service not known", error.what());
    }
    EXPECT_THAT(
        log.records(),
        ElementsAre(debugRecord(kCategory, "Connecting to no.such.host:22\n"),
                    errorRecord(kCategory, "Resolving no.such.host"),
                    errorRecord(kCategory, "Unable to resolve no.such.host: Name or service not known")));
}

TEST(Socket, TellsConnectionErrorsApart) {
    NetworkFaults faults;
    faults.connectError = ENETUNREACH;
    expectError<&NetworkUnreachable>(faults, "Specified network host 127.0.0.1 is unreachable");
    faults.connectError = ETIMEDOUT;
    expectError<&ConnectionTimedOut>(faults, "Timeout while attempting connection to host 127.0.0.1");
    faults.connectError = ECONNREFUSED;
    expectError<&ConnectionRefused>(faults, "No one listening on the remote address at host 127.0.0.1");
    faults.connectError = EHOSTUNREACH;
    expectError<&HostUnreachable>(faults, "No route to host 127.0.0.1");
    faults.connectError = EACCES;
    expectError<&ConnectionFault>(faults, "Unable to connect to host 127.0.0.1: Permission denied");
}

TEST(Socket, IsRefusedByAPortOnWhichNobodyListens) {
    LoopbackListener listener;
    listener.close();
    EXPECT_THROW(Socket(kHost, listener.port()), Exc<&ConnectionRefused>);
}

TEST(Socket, TriesTheFirstAddressOnlyEvenWhenALaterOneWouldAnswer) {
    LoopbackListener nobody;
    nobody.close();
    const LoopbackListener somebody;
    NetworkFaults faults;
    faults.firstPort = nobody.port();
    EXPECT_THROW(Socket(kHost, somebody.port()), Exc<&ConnectionRefused>);
    EXPECT_EQ(1, faults.connects);
}

TEST(Socket, ThrowsAPlainErrorWhenThereIsNoSocketToBeHad) {
    NetworkFaults faults;
    faults.socketError = EMFILE;
    try {
        const Socket socket(kHost, 22);
        FAIL() << "connected";
    } catch (const ExTraceable&) {
        FAIL() << "not a plain error";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ("socket: Too many open files", error.what());
    }
}

TEST(Socket, AwaitsAConnectThatASignalHasInterrupted) {
    const LoopbackListener listener;
    NetworkFaults faults;
    faults.interruptedConnect = true;
    const Socket socket(kHost, listener.port());
    EXPECT_EQ(1, faults.connects);
    const int peer = listener.accept();
    EXPECT_EQ(1, ::write(socket.fd(), "x", 1));
    char byte = 0;
    EXPECT_EQ(1, ::read(peer, &byte, 1));
    ::close(peer);
}

TEST(Socket, TellsTheErrorOfAConnectThatASignalHasInterrupted) {
    LoopbackListener listener;
    listener.close();
    NetworkFaults faults;
    faults.interruptedConnect = true;
    EXPECT_THROW(Socket(kHost, listener.port()), Exc<&ConnectionRefused>);
}

}  // namespace
}  // namespace korva
