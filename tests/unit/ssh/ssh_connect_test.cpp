// SPDX-License-Identifier: Apache-2.0
#include "commons/handle.h"
#include "commons/socket.h"
#include "ssh/libssh2pp.h"
#include "unit/ssh/ssh_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korva {
namespace {

using test::debugRecord;
using test::kPassword;
using test::LogRecord;
using test::SshOverFake;
using testing::Contains;
using testing::ElementsAre;

class SshConnect : public SshOverFake {
  protected:
    void construct(bool noEncryption = false) {
        const Ssh connection("127.0.0.1", "user", kPassword, noEncryption, listener().port());
    }
    /// How many connections the host has been asked for.
    int connections() const {
        fcntl(listener().fd(), F_SETFL, O_NONBLOCK);
        int count = 0;
        for (int fd = listener().accept(); fd >= 0; fd = listener().accept()) {
            ::close(fd);
            ++count;
        }
        return count;
    }
    std::size_t indexOf(const LogRecord& record) {
        const auto& records = log().records();
        return static_cast<std::size_t>(std::find(records.begin(), records.end(), record) - records.begin());
    }
};

TEST_F(SshConnect, ConnectsStartsAndAuthenticatesOnce) {
    construct();
    EXPECT_EQ(1, connections());
    EXPECT_THAT(fake().calls,
                ElementsAre("session_init", "set_timeout 120000", "startup", "userauth_list user",
                            std::string("password user ") + kPassword, "session_free"));
}

TEST_F(SshConnect, PassesTheRequestForNoEncryptionOn) {
    construct(true);
    EXPECT_EQ(2U, fake().countOf("method_pref"));
}

TEST_F(SshConnect, TriesOnceMoreInCompatibilityModeOnANewConnection) {
    fake().startup = {LIBSSH2_ERROR_KEY_EXCHANGE_FAILURE, 0};
    construct();
    EXPECT_EQ(2, connections());
    EXPECT_THAT(fake().calls,
                ElementsAre("session_init", "set_timeout 120000", "startup", "session_free", "session_init",
                            "method_pref 0 diffie-hellman-group1-sha1", "set_timeout 120000", "startup",
                            "userauth_list user", std::string("password user ") + kPassword,
                            "open session 65536 16384", "set_blocking 0", "exec cat", "set_blocking 0",
                            "free", "session_free"));
    EXPECT_THAT(log().records(),
                Contains(debugRecord("k.Ssh", "Attempt to start SSH session in a 'compatibility' mode")));
}

TEST_F(SshConnect, TriesNoThirdTime) {
    fake().startup = {LIBSSH2_ERROR_KEY_EXCHANGE_FAILURE, LIBSSH2_ERROR_KEY_EXCHANGE_FAILURE};
    EXPECT_THROW(construct(), Exc<&UnableToStartSshSession>);
    EXPECT_EQ(2, connections());
    EXPECT_EQ(2U, fake().countOf("startup"));
    EXPECT_EQ(2, fake().sessionsFreed);
}

TEST_F(SshConnect, TriesNoSecondTimeAfterAnotherError) {
    fake().initFails = true;
    EXPECT_THROW(construct(), Exc<&InvalidHandle>);
    EXPECT_EQ(1, connections());
}

TEST_F(SshConnect, CallsRefusedCredentialsByTheHost) {
    fake().methodList = "publickey";
    try {
        construct();
        FAIL() << "authenticated";
    } catch (const Exc<&SshInvalidCredentials>& error) {
        EXPECT_STREQ("Unable to connect to host 127.0.0.1: you have specified incorrect username or password",
                     error.what());
        EXPECT_EQ(nullptr, error.inner());
    }
    EXPECT_EQ(1, fake().sessionsFreed);
}

TEST_F(SshConnect, LeavesOtherErrorsOfAuthenticationAsTheyAre) {
    fake().methodList = std::nullopt;
    EXPECT_THROW(construct(), Exc<&InvalidHandle>);
    fake().methodList = "password";
    fake().passwordResults = {LIBSSH2_ERROR_SOCKET_DISCONNECT};
    EXPECT_THROW(construct(), Exc<&SshConnectionFault>);
}

TEST_F(SshConnect, HoldsTicksBackInEveryCallOfTheLibrary) {
    int calls = 0;
    fake().onCall = [&](const std::string& call) {
        sigset_t mask;
        sigprocmask(SIG_BLOCK, nullptr, &mask);
        EXPECT_EQ(1, sigismember(&mask, SIGALRM)) << call;
        ++calls;
    };
    fake().startup = {LIBSSH2_ERROR_KEY_EXCHANGE_FAILURE, 0};
    construct();
    EXPECT_GE(calls, 10);
    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    EXPECT_EQ(0, sigismember(&mask, SIGALRM));
}

TEST_F(SshConnect, LetsTicksInWhileItWaits) {
    fake().opens = {LIBSSH2_ERROR_EAGAIN, LIBSSH2_ERROR_EAGAIN, LIBSSH2_ERROR_EAGAIN};
    fake().startup = {LIBSSH2_ERROR_KEY_EXCHANGE_FAILURE, 0};
    construct();
    EXPECT_FALSE(waits().waits.empty());
    for (const test::WaitProbe::Wait& wait : waits().waits) {
        EXPECT_TRUE(wait.letsAlarmIn);
    }
}

TEST_F(SshConnect, EndsTheSessionBeforeItsConnection) {
    bool connectedAtTheEnd = false;
    connect();
    const int peer = listener().accept();
    fcntl(peer, F_SETFL, O_NONBLOCK);
    fake().onCall = [&](const std::string& call) {
        if (call == "session_free") {
            char byte = 0;
            connectedAtTheEnd = ::read(peer, &byte, 1) == -1;  // nothing to read, and no end either
        }
    };
    disconnect();
    EXPECT_TRUE(connectedAtTheEnd);
    char byte = 0;
    EXPECT_EQ(0, ::read(peer, &byte, 1));
    ::close(peer);
}

TEST_F(SshConnect, NeverLogsThePassword) {
    fake().passwordResults = {LIBSSH2_ERROR_AUTHENTICATION_FAILED};
    construct();
    EXPECT_THAT(log().text(), testing::Not(testing::HasSubstr(kPassword)));
}

}  // namespace
}  // namespace korva
