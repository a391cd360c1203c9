// SPDX-License-Identifier: Apache-2.0
#include "fakes/fake_libssh2.h"
#include "ssh/libssh2pp.h"
#include "support/captured_log.h"
#include "support/loopback_listener.h"
#include "support/wait_probe.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korva::libssh2pp {
namespace {

using test::CapturedLog;
using test::debugRecord;
using test::errorRecord;
using test::FakeChannel;
using test::FakeLibssh2;
using test::LogRecord;
using test::SocketPair;
using test::WaitProbe;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr const char* kCategory = "k.libssh2pp.Session";

class SessionTest : public testing::Test {
  protected:
    Session& start(bool noEncryption = false, bool compatibility = false) {
        session_ = std::make_unique<Session>(socket(), noEncryption, compatibility);
        return *session_;
    }
    void end() { session_.reset(); }

    template <auto Tag>
    std::string messageOfAuthorize() {
        try {
            start().authorize("user", "sesame");
        } catch (const Exc<Tag>& error) {
            return error.what();
        }
        return "no error";
    }

    /// Starts, authenticates and forgets what was recorded meanwhile.
    Session& startAuthorized(bool compatibility = false) {
        Session& session = start(false, compatibility);
        session.authorize("user", "sesame");
        fake.calls.clear();
        log.clear();
        waits.waits.clear();
        return session;
    }

    int socket() const { return sockets_.ours(); }

    FakeLibssh2 fake;
    WaitProbe waits;
    CapturedLog log;

  private:
    SocketPair sockets_;
    std::unique_ptr<Session> session_;
};

using SessionStart = SessionTest;

TEST_F(SessionStart, MakesAndStartsASessionWithDefaults) {
    start();
    EXPECT_THAT(fake.calls, ElementsAre("session_init", "set_timeout 120000", "startup"));
    EXPECT_THAT(log.records(), ElementsAre(debugRecord(kCategory, "Trying to start SSH session"),
                                           debugRecord(kCategory, "Selected aes128-ctr encryption method"),
                                           debugRecord(kCategory, "SSH session started successfully")));
}

TEST_F(SessionStart, EndsWithALogLineAndFreesTheSession) {
    start();
    log.clear();
    fake.calls.clear();
    end();
    EXPECT_THAT(log.records(), ElementsAre(debugRecord(kCategory, "SSH session finished")));
    EXPECT_THAT(fake.calls, ElementsAre("session_free"));
}

TEST_F(SessionStart, RejectsANullSession) {
    fake.initFails = true;
    EXPECT_THROW(start(), Exc<&InvalidHandle>);
    EXPECT_EQ(0, fake.sessionsFreed);
}

TEST_F(SessionStart, AsksForNoEncryptionInVainAndNamesTheRealCipher) {
    start(true);
    EXPECT_THAT(fake.calls, ElementsAre("session_init", "method_pref 2 none", "method_pref 3 none",
                                        "set_timeout 120000", "startup"));
    EXPECT_THAT(log.records(), ElementsAre(debugRecord(kCategory, "Trying to start SSH session"),
                                           debugRecord(kCategory, "Disabling SSH encryption"),
                                           debugRecord(kCategory, "Selected aes128-ctr encryption method"),
                                           debugRecord(kCategory, "SSH session started successfully")));
}

TEST_F(SessionStart, OffersTheOldestKeyExchangeOnlyInCompatibilityMode) {
    start(false, true);
    EXPECT_THAT(fake.calls, ElementsAre("session_init", "method_pref 0 diffie-hellman-group1-sha1",
                                        "set_timeout 120000", "startup"));
}

TEST_F(SessionStart, FailsWithTheLibrarysMessageAndFreesTheSession) {
    fake.startup = {LIBSSH2_ERROR_KEY_EXCHANGE_FAILURE};
    fake.lastErrorText = "Unable to exchange encryption keys";
    try {
        start();
        FAIL() << "started";
    } catch (const Exc<&UnableToStartSshSession>& error) {
        EXPECT_STREQ("Unable to start SSH session: Unable to exchange encryption keys", error.what());
    }
    EXPECT_THAT(
        log.records(),
        Contains(errorRecord(kCategory, "SSH session was not started: Unable to exchange encryption keys")));
    EXPECT_EQ(1, fake.sessionsFreed);
}

const char* const kNothingInCommon =
    "The server and this program's SSH library have no key exchange, host key, cipher or MAC method in "
    "common. A server that has an RSA host key only is such a case: the library knows RSA signatures with "
    "SHA-1 only, which such servers no longer offer";

TEST_F(SessionStart, TellsAtErrorLevelThatNoMethodIsCommonToBothSides) {
    fake.startup = {LIBSSH2_ERROR_KEX_FAILURE};
    EXPECT_THROW(start(), Exc<&UnableToStartSshSession>);
    EXPECT_THAT(log.records(), Contains(errorRecord(kCategory, kNothingInCommon)));
}

TEST_F(SessionStart, TellsOfNoCommonMethodOnlyWhereAllMethodsWereOffered) {
    fake.startup = {LIBSSH2_ERROR_KEX_FAILURE};
    EXPECT_THROW(start(false, true), Exc<&UnableToStartSshSession>);
    EXPECT_THAT(log.records(), Not(Contains(errorRecord(kCategory, kNothingInCommon))));
}

TEST_F(SessionStart, TellsOfNoCommonMethodForNoOtherFailure) {
    for (const int error : {LIBSSH2_ERROR_KEY_EXCHANGE_FAILURE, LIBSSH2_ERROR_SOCKET_RECV}) {
        fake.startup = {error};
        EXPECT_THROW(start(), Exc<&UnableToStartSshSession>);
    }
    EXPECT_THAT(log.records(), Not(Contains(errorRecord(kCategory, kNothingInCommon))));
}

TEST_F(SessionStart, FailsEvenWhenTheLibraryHasNoMessage) {
    fake.startup = {LIBSSH2_ERROR_SOCKET_RECV};
    EXPECT_THROW(start(), Exc<&UnableToStartSshSession>);
}

TEST_F(SessionStart, WaitsForNothingBeforeItSendsItsOwnIdentification) {
    start();
    EXPECT_TRUE(waits.waits.empty());
}

TEST_F(SessionStart, FailsWithAServerThatSendsNothingFor120Seconds) {
    fake.startup = {LIBSSH2_ERROR_TIMEOUT};
    EXPECT_THROW(start(), Exc<&UnableToStartSshSession>);
    EXPECT_THAT(fake.calls, testing::IsSupersetOf({"set_timeout 120000", "startup"}));
}

using AuthMethods = SessionTest;

TEST_F(AuthMethods, AreListedAndLogged) {
    Session& session = start();
    log.clear();
    std::vector<std::string> methods;
    session.getAuthMethodsList("user", methods);
    EXPECT_THAT(methods, ElementsAre("password", "keyboard-interactive"));
    EXPECT_THAT(fake.callsOf("userauth_list"), ElementsAre("userauth_list user"));
    EXPECT_THAT(log.records(), ElementsAre(debugRecord(kCategory, "Getting userauth methods for user 'user'"),
                                           debugRecord(kCategory,
                                                       "Got the following allowed userauth methods: "
                                                       "password,keyboard-interactive")));
}

TEST_F(AuthMethods, KeepEmptyPieces) {
    fake.methodList = "publickey,,password,";
    std::vector<std::string> methods;
    start().getAuthMethodsList("user", methods);
    EXPECT_THAT(methods, ElementsAre("publickey", "", "password", ""));
}

TEST_F(AuthMethods, AreAnInvalidHandleWhenTheListIsNull) {
    fake.methodList = std::nullopt;
    std::vector<std::string> methods;
    EXPECT_THROW(start().getAuthMethodsList("user", methods), Exc<&InvalidHandle>);
}

TEST_F(AuthMethods, AreCopiedAndLeftToTheSession) {
    // The text lies in the fake's own memory: freeing it would end the program.
    std::vector<std::string> methods;
    Session& session = start();
    session.getAuthMethodsList("user", methods);
    fake.methodList = "other";
    fake.methodListText();
    EXPECT_THAT(methods, ElementsAre("password", "keyboard-interactive"));
    session.getAuthMethodsList("user", methods);
    EXPECT_THAT(methods, ElementsAre("other"));
}

using Authorize = SessionTest;

TEST_F(Authorize, TakesThePasswordMethodFirst) {
    start().authorize("user", "sesame");
    EXPECT_THAT(fake.callsOf("password"), ElementsAre("password user sesame"));
    EXPECT_EQ(0U, fake.countOf("keyboard-interactive"));
    const std::vector<LogRecord> expected = {
        debugRecord(kCategory, "Requested authorization for user user"),
        debugRecord(kCategory, "Getting userauth methods for user 'user'"),
        debugRecord(kCategory, "Got the following allowed userauth methods: password,keyboard-interactive"),
        debugRecord(kCategory, "Trying 'password' authentication"),
        debugRecord(kCategory, "Authenticated succesfully")};
    EXPECT_THAT(std::vector<LogRecord>(log.records().end() - 5, log.records().end()), expected);
}

TEST_F(Authorize, TakesThePasswordUpToItsFirstNul) {
    start().authorize("user", std::string("ses\0ame", 7));
    EXPECT_THAT(fake.callsOf("password"), ElementsAre("password user ses"));
}

TEST_F(Authorize, GoesOnWithKeyboardInteractiveWhenThePasswordMethodIsRefused) {
    fake.passwordResults = {LIBSSH2_ERROR_AUTHENTICATION_FAILED};
    fake.promptCounts = {3, 0, 1};
    start().authorize("user", "sesame");
    EXPECT_THAT(fake.callsOf("keyboard-interactive"), ElementsAre("keyboard-interactive user"));
    EXPECT_THAT(fake.answers, ElementsAre("sesame", "sesame", "sesame", "sesame"));
    const std::vector<LogRecord> expected = {
        debugRecord(kCategory, "Trying 'password' authentication"),
        debugRecord(kCategory, "Trying 'keyboard-interactive' authentication"),
        debugRecord(kCategory,
                    "'keyboard-interactive' callback requested. Filling 3 responses with the password"),
        debugRecord(kCategory,
                    "'keyboard-interactive' callback requested. Filling 0 responses with the password"),
        debugRecord(kCategory,
                    "'keyboard-interactive' callback requested. Filling 1 responses with the password"),
        debugRecord(kCategory, "Authenticated successfully")};
    EXPECT_THAT(std::vector<LogRecord>(log.records().end() - 6, log.records().end()), expected);
}

TEST_F(Authorize, UsesKeyboardInteractiveAloneWhereNothingElseIsOffered) {
    fake.methodList = "publickey,keyboard-interactive";
    start().authorize("user", "sesame");
    EXPECT_EQ(0U, fake.countOf("password"));
    EXPECT_THAT(fake.answers, ElementsAre("sesame"));
}

TEST_F(Authorize, FindsPasswordAmongEmptyPieces) {
    fake.methodList = "publickey,,password";
    start().authorize("user", "sesame");
    EXPECT_EQ(1U, fake.countOf("password"));
}

TEST_F(Authorize, ComparesWholeNames) {
    fake.methodList = "passwords,password ,Password,keyboard-interactive-2";
    EXPECT_EQ("No suitable username/password found", messageOfAuthorize<&SshAuthorizationFailed>());
    EXPECT_EQ(0U, fake.countOf("password"));
    EXPECT_EQ(0U, fake.countOf("keyboard-interactive"));
}

TEST_F(Authorize, FailsWithAServerThatOffersOnlyPublickey) {
    fake.methodList = "publickey";
    EXPECT_EQ("No suitable username/password found", messageOfAuthorize<&SshAuthorizationFailed>());
    EXPECT_THAT(log.records(), Contains(errorRecord(kCategory, "Authentication failed")));
}

TEST_F(Authorize, FailsWithAnEmptyMethodList) {
    fake.methodList = "";
    EXPECT_EQ("No suitable username/password found", messageOfAuthorize<&SshAuthorizationFailed>());
}

TEST_F(Authorize, FailsWhenBothMethodsAreRefused) {
    fake.passwordResults = {LIBSSH2_ERROR_AUTHENTICATION_FAILED};
    fake.keyboardResults = {LIBSSH2_ERROR_AUTHENTICATION_FAILED};
    EXPECT_EQ("No suitable username/password found", messageOfAuthorize<&SshAuthorizationFailed>());
}

TEST_F(Authorize, TellsALostConnectionFromWrongCredentials) {
    for (const int error : {LIBSSH2_ERROR_SOCKET_SEND, LIBSSH2_ERROR_TIMEOUT, LIBSSH2_ERROR_SOCKET_DISCONNECT,
                            LIBSSH2_ERROR_SOCKET_TIMEOUT, LIBSSH2_ERROR_SOCKET_RECV, LIBSSH2_ERROR_PROTO,
                            LIBSSH2_ERROR_INVALID_MAC, LIBSSH2_ERROR_DECRYPT}) {
        fake.passwordResults = {error};
        EXPECT_EQ("Lost connection with the remote host", messageOfAuthorize<&SshConnectionFault>()) << error;
        fake.passwordResults = {LIBSSH2_ERROR_AUTHENTICATION_FAILED};
        fake.keyboardResults = {error};
        EXPECT_EQ("Lost connection with the remote host", messageOfAuthorize<&SshConnectionFault>()) << error;
    }
}

TEST_F(Authorize, TellsAConnectionLostWhileTheServerJudgesTheAnswers) {
    fake.methodList = "keyboard-interactive";
    fake.keyboardResults = {LIBSSH2_ERROR_AUTHENTICATION_FAILED};
    fake.lastErrorText = "Waiting for keyboard USERAUTH response";
    EXPECT_EQ("Lost connection with the remote host", messageOfAuthorize<&SshConnectionFault>());
}

TEST_F(Authorize, OpensNoReserveChannelInTheUsualMode) {
    start().authorize("user", "sesame");
    EXPECT_EQ(0U, fake.openedChannels());
}

TEST_F(Authorize, NeverLogsThePassword) {
    fake.passwordResults = {LIBSSH2_ERROR_AUTHENTICATION_FAILED};
    start().authorize("user", "sesame");
    EXPECT_THAT(log.text(), Not(testing::HasSubstr("sesame")));
}

std::vector<std::string> answersOf(const std::string& password, int prompts) {
    std::vector<LIBSSH2_USERAUTH_KBDINT_RESPONSE> responses(static_cast<std::size_t>(prompts));
    void* abstract = const_cast<std::string*>(&password);
    Session::userauth_callback("name", 4, "instruction", 11, prompts, nullptr, responses.data(), &abstract);
    std::vector<std::string> answers;
    for (const auto& response : responses) {
        answers.emplace_back(response.text, response.length);
        std::free(response.text);  // as libssh2 does: it must have come from malloc
    }
    return answers;
}

TEST(UserauthCallback, AnswersEveryPromptWithACopyOfExactlyThePassword) {
    EXPECT_THAT(answersOf("sesame", 3), ElementsAre("sesame", "sesame", "sesame"));
    const std::string withNul("se\0same", 7);
    EXPECT_THAT(answersOf(withNul, 1), ElementsAre(withNul));
}

TEST(UserauthCallback, AnswersNothingToZeroPrompts) {
    EXPECT_THAT(answersOf("sesame", 0), IsEmpty());
}

TEST(UserauthCallback, AnswersWithNoBytesForAnEmptyPassword) {
    EXPECT_THAT(answersOf("", 2), ElementsAre("", ""));
}

using ReserveChannel = SessionTest;

TEST_F(ReserveChannel, IsOpenedAfterAuthenticationInCompatibilityModeAndRunsCat) {
    Session& session = start(false, true);
    fake.calls.clear();
    log.clear();
    session.authorize("user", "sesame");
    EXPECT_THAT(fake.calls, ElementsAre("userauth_list user", "password user sesame",
                                        "open session 65536 16384", "set_blocking 0", "exec cat"));
    EXPECT_EQ(debugRecord(kCategory, "Create a reserve channel"), log.records().back());
}

TEST_F(ReserveChannel, WaitsForItsAnswerSoThatTheNextCommandGetsItsOwn) {
    fake.nextChannel().startup = {LIBSSH2_ERROR_EAGAIN, LIBSSH2_ERROR_EAGAIN, LIBSSH2_ERROR_EAGAIN,
                                  LIBSSH2_ERROR_EAGAIN};
    start(false, true).authorize("user", "sesame");
    EXPECT_THAT(fake.callsOf("exec"),
                ElementsAre("exec cat", "exec cat", "exec cat", "exec cat", "exec cat"));
}

TEST_F(ReserveChannel, IsNotWaitedForForEver) {
    fake.nextChannel().startup.assign(1000, LIBSSH2_ERROR_EAGAIN);
    start(false, true).authorize("user", "sesame");
    EXPECT_LT(fake.countOf("exec"), 100U);
}

TEST_F(ReserveChannel, MayBeRefusedItsCommand) {
    fake.nextChannel().startup = {LIBSSH2_ERROR_CHANNEL_REQUEST_DENIED};
    EXPECT_NO_THROW(start(false, true).authorize("user", "sesame"));
}

TEST_F(ReserveChannel, IsAnInvalidHandleWhenItCannotBeOpened) {
    fake.opens = {LIBSSH2_ERROR_CHANNEL_FAILURE};
    EXPECT_THROW(start(false, true).authorize("user", "sesame"), Exc<&InvalidHandle>);
}

TEST_F(ReserveChannel, LeavesTheSessionFitForLaterCommands) {
    Session& session = startAuthorized(true);
    // The session is non-blocking now: the next open is not done in one call.
    fake.opens = {LIBSSH2_ERROR_EAGAIN, LIBSSH2_ERROR_EAGAIN, LIBSSH2_ERROR_EAGAIN, LIBSSH2_ERROR_EAGAIN};
    EXPECT_NE(nullptr, session.openExecChannel("true", "shown", Channel::kNonBlocking));
    EXPECT_EQ(5U, fake.countOf("open"));
    EXPECT_FALSE(fake.channel(0).freed);
}

TEST_F(ReserveChannel, StaysOpenUntilTheSessionEnds) {
    startAuthorized(true);
    EXPECT_FALSE(fake.channel(0).freed);
    end();
    EXPECT_TRUE(fake.channel(0).freed);
    EXPECT_THAT(fake.calls, ElementsAre("set_blocking 0", "free", "session_free"));
    EXPECT_THAT(log.records(), ElementsAre(debugRecord(kCategory, "SSH session finished"),
                                           debugRecord("k.libssh2pp.Channel", "Closed")));
}

TEST_F(ReserveChannel, IsLeftToTheSessionWhenTheRemoteSideDoesNotCloseIt) {
    fake.nextChannel().free.assign(1000, LIBSSH2_ERROR_EAGAIN);
    startAuthorized(true);
    fake.sessionFree = {LIBSSH2_ERROR_EAGAIN};
    end();
    EXPECT_FALSE(fake.blocking) << "a blocking session_free would wait for the remote command";
    EXPECT_EQ("session_free", fake.calls.back());
    EXPECT_THAT(waits.waits, IsEmpty());
}

using OpenExecChannel = SessionTest;

TEST_F(OpenExecChannel, OpensASessionChannelSetsItsModeAndStartsTheCommand) {
    Session& session = startAuthorized();
    const auto channel = session.openExecChannel("cat 'a b'", "what is shown", Channel::kNonBlocking);
    EXPECT_NE(nullptr, channel);
    EXPECT_THAT(fake.calls, ElementsAre("open session 65536 16384", "set_blocking 0", "exec cat 'a b'"));
    EXPECT_THAT(log.records(),
                ElementsAre(debugRecord(kCategory, "Opening SSH channel for command 'what is shown'")));
}

TEST_F(OpenExecChannel, SetsTheModeThatItIsAskedFor) {
    Session& session = startAuthorized();
    const auto channel = session.openExecChannel("true", "shown", Channel::kBlocking);
    EXPECT_THAT(fake.callsOf("set_blocking"), ElementsAre("set_blocking 1"));
}

TEST_F(OpenExecChannel, RepeatsAnOpenThatHasToWait) {
    Session& session = startAuthorized();
    fake.opens.assign(7, LIBSSH2_ERROR_EAGAIN);
    EXPECT_NE(nullptr, session.openExecChannel("true", "shown", Channel::kNonBlocking));
    EXPECT_EQ(8U, fake.countOf("open session 65536 16384"));
    EXPECT_FALSE(waits.waits.empty());
}

TEST_F(OpenExecChannel, IsAnInvalidHandleWhenTheServerRefusesAChannel) {
    Session& session = startAuthorized();
    fake.opens = {LIBSSH2_ERROR_CHANNEL_FAILURE};
    EXPECT_THROW(session.openExecChannel("true", "shown", Channel::kNonBlocking), Exc<&InvalidHandle>);
    EXPECT_EQ(1U, fake.countOf("open"));
}

TEST_F(OpenExecChannel, TellsALostConnectionFromARefusedChannel) {
    Session& session = startAuthorized();
    for (const int error : {LIBSSH2_ERROR_SOCKET_SEND, LIBSSH2_ERROR_SOCKET_RECV,
                            LIBSSH2_ERROR_SOCKET_DISCONNECT, LIBSSH2_ERROR_TIMEOUT}) {
        fake.opens = {error};
        EXPECT_THROW(session.openExecChannel("true", "shown", Channel::kNonBlocking),
                     Exc<&SshConnectionFault>)
            << error;
    }
}

TEST_F(OpenExecChannel, RepeatsTheSameRequestWhileItHasToWait) {
    Session& session = startAuthorized();
    fake.nextChannel().startup.assign(7, LIBSSH2_ERROR_EAGAIN);
    EXPECT_NE(nullptr, session.openExecChannel("true", "shown", Channel::kNonBlocking));
    EXPECT_EQ(8U, fake.countOf("exec true"));
}

TEST_F(OpenExecChannel, GivesNoChannelForACommandThatTheServerRefuses) {
    Session& session = startAuthorized();
    fake.nextChannel().startup = {LIBSSH2_ERROR_CHANNEL_REQUEST_DENIED};
    EXPECT_EQ(nullptr, session.openExecChannel("true", "shown", Channel::kNonBlocking));
    EXPECT_TRUE(fake.channel(0).freed);
}

TEST_F(OpenExecChannel, GivesNoChannelForACommandThatIsTooLongToBeSent) {
    Session& session = startAuthorized();
    fake.nextChannel().startup = {LIBSSH2_ERROR_INVAL};
    EXPECT_EQ(nullptr, session.openExecChannel(std::string(40000, 'x'), "shown", Channel::kNonBlocking));
}

TEST_F(OpenExecChannel, TellsAConnectionLostWhileTheCommandIsStarted) {
    Session& session = startAuthorized();
    for (const int error : {-1, LIBSSH2_ERROR_SOCKET_SEND, LIBSSH2_ERROR_SOCKET_RECV,
                            LIBSSH2_ERROR_SOCKET_DISCONNECT, LIBSSH2_ERROR_BAD_USE}) {
        fake.nextChannel().startup = {error};
        EXPECT_THROW(session.openExecChannel("true", "shown", Channel::kNonBlocking),
                     Exc<&SshConnectionFault>)
            << error;
    }
}

TEST_F(OpenExecChannel, RepeatsAtOnceBeforeItSleepsSinceTheSocketMayJustHaveBecomeWritable) {
    Session& session = startAuthorized();
    fake.nextChannel().startup = {LIBSSH2_ERROR_EAGAIN, LIBSSH2_ERROR_EAGAIN};
    const auto channel = session.openExecChannel("true", "shown", Channel::kNonBlocking);
    EXPECT_THAT(waits.waits, IsEmpty());
}

TEST_F(OpenExecChannel, WaitsForAFullSocketToTakeBytes) {
    Session& session = startAuthorized();
    fake.nextChannel().startup = {LIBSSH2_ERROR_EAGAIN};
    waits.writable = {false, false};
    const auto channel = session.openExecChannel("true", "shown", Channel::kNonBlocking);
    ASSERT_EQ(1U, waits.waits.size());
    EXPECT_EQ(POLLIN | POLLOUT, waits.waits.front().events);
    EXPECT_EQ(5000, waits.waits.front().timeoutMs);
}

}  // namespace
}  // namespace korva::libssh2pp
