// SPDX-License-Identifier: Apache-2.0
#include "commons/stream_errors.h"
#include "commons/termination.h"
#include "ssh/libssh2pp.h"
#include "support/child_process.h"
#include "unit/ssh/ssh_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace korva {
namespace {

using test::debugRecord;
using test::FakeChannel;
using test::FakeRead;
using test::kPassword;
using test::RecordingCounter;
using test::SshOverFake;
using test::statusOfChild;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Ge;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Le;
using testing::Not;

/// Runs what it is made of, and stays registered.
class AlarmOf : public Alarm {
  public:
    explicit AlarmOf(std::function<void()> work) : work_(std::move(work)) {}
    void doAlarm() override {
        ++served;
        work_();
    }
    int served = 0;

  private:
    std::function<void()> work_;
};

class SshExec : public SshOverFake {
  protected:
    SshExec() : script(fake().nextChannel()) { connect(); }

    int exec(const std::string& input = "", bool quietOutput = true, bool quietInput = true) {
        std::istringstream in(input);
        return ssh().exec("command", in, out, err, quietOutput, quietInput, counter);
    }

    FakeChannel& script;
    std::ostringstream out;
    std::ostringstream err;
    RecordingCounter counter;
};

TEST_F(SshExec, RunsACommandWithoutOutputInOnePassAndReturnsItsStatus) {
    script.exitStatus = 9;
    EXPECT_EQ(9, exec());
    EXPECT_THAT(fake().calls,
                ElementsAre("open session 65536 16384", "set_blocking 0", "exec command", "send_eof",
                            "wait_closed", "exit_status", "set_blocking 0", "free"));
    EXPECT_THAT(waits().waits, IsEmpty());
}

TEST_F(SshExec, LogsItsStepsAndTheStatusBeforeTheChannelIsClosed) {
    script.exitStatus = 9;
    exec();
    EXPECT_THAT(log().records(),
                ElementsAre(debugRecord("k.Ssh", "Executing command on the remote host"),
                            debugRecord("k.libssh2pp.Session", "Opening SSH channel for command 'command'"),
                            debugRecord("k.Ssh", "Execution finished with return code 9"),
                            debugRecord("k.libssh2pp.Channel", "Closed")));
}

TEST_F(SshExec, SendsTheWholeInputAndItsEndBeforeItReadsOutput) {
    script.reads[0] = {{"output"}};
    const std::string input(200000, 'i');
    exec(input);
    EXPECT_EQ(input, script.input);
    const auto& calls = fake().calls;
    const auto eof = std::find(calls.begin(), calls.end(), "send_eof");
    EXPECT_TRUE(std::none_of(calls.begin(), eof, [](auto& call) { return call.starts_with("read"); }));
    EXPECT_TRUE(std::none_of(eof, calls.end(), [](auto& call) { return call.starts_with("write"); }));
}

TEST_F(SshExec, GoesOnAfterShortWrites) {
    script.writes = {1, 32700, 0, 5, LIBSSH2_ERROR_EAGAIN, 32700};
    std::string input;
    for (int i = 0; i < 30000; ++i) {
        input += std::to_string(i) + "\n";
    }
    exec(input);
    EXPECT_EQ(input, script.input);
}

TEST_F(SshExec, DeliversBothStreamsAndCountsStandardOutputOnly) {
    script.reads[0] = {{"out 1 "}, FakeRead::nothingYet(), {"out 2"}};
    script.reads[1] = {FakeRead::nothingYet(), {"err 1 "}, {"err 2"}};
    EXPECT_EQ(0, exec());
    EXPECT_EQ("out 1 out 2", out.str());
    EXPECT_EQ("err 1 err 2", err.str());
    EXPECT_THAT(counter.sizes, ElementsAre(6, 5));
}

TEST_F(SshExec, DeliversLargeOutputInPiecesOfAtMost65536) {
    std::string bytes(200001, '\0');
    std::generate(bytes.begin(), bytes.end(), [n = 0]() mutable { return static_cast<char>(n++ % 251); });
    script.reads[0] = {{bytes}};
    script.reads[1] = {{bytes}};
    exec();
    EXPECT_EQ(bytes, out.str());
    EXPECT_EQ(bytes, err.str());
    EXPECT_THAT(counter.sizes, ElementsAre(65536, 65536, 65536, 3393));
}

TEST_F(SshExec, Reads65536BytesAtOnceNeverInBlockingMode) {
    script.reads[0] = {{"out"}};
    script.reads[1] = {{"err"}};
    exec("input");
    EXPECT_THAT(fake().callsOf("read 0"), Each("read 0 65536"));
    EXPECT_THAT(fake().callsOf("read 1"), Each("read 1 65536"));
    EXPECT_THAT(fake().callsOf("adjust"), IsEmpty());
    EXPECT_THAT(fake().callsInBlockingMode, IsEmpty());
}

TEST_F(SshExec, ReadsStandardErrorThatComesAlone) {
    // The library's own poll would sleep through it.
    script.reads[1] = {FakeRead::nothingYet(), {"err"}};
    script.reads[0] = {};
    exec();
    EXPECT_EQ("err", err.str());
}

TEST_F(SshExec, NeverLetsTheLibraryPollWithATimeout) {
    script.reads[0].assign(20, FakeRead::nothingYet());
    exec();
    EXPECT_THAT(fake().callsOf("poll "), AllOf(Not(IsEmpty()), Each("poll 1 2 1 0")));
}

TEST_F(SshExec, WakesAtLeastEvery5SecondsWhileACommandIsSilentAndServesTheAlarmEachTime) {
    script.reads[0].assign(12, FakeRead::nothingYet());
    AlarmOf alarm([] {});
    ssh().setAlarm(&alarm);
    exec();
    EXPECT_EQ(11U, waits().waits.size());
    for (const test::WaitProbe::Wait& wait : waits().waits) {
        EXPECT_LE(wait.timeoutMs, 5000);
        EXPECT_TRUE(wait.letsAlarmIn);
    }
    EXPECT_EQ(12, alarm.served);
}

TEST_F(SshExec, ServesNoAlarmOnceTheOutputHasEnded) {
    AlarmOf alarm([] {});
    ssh().setAlarm(&alarm);
    exec();
    EXPECT_EQ(0, alarm.served);
}

TEST_F(SshExec, ServesTheAlarmWhileItWaitsForTheCloseThatComesLongAfterTheOutput) {
    script.waitClosed.assign(6, LIBSSH2_ERROR_EAGAIN);
    AlarmOf alarm([] {});
    ssh().setAlarm(&alarm);
    EXPECT_EQ(0, exec());
    EXPECT_EQ(3, alarm.served);
    EXPECT_THAT(waits().waits.size(), Le(3U));
}

TEST_F(SshExec, DoesNotSleepOnACloseThatTheAlarmsOwnCommandHasReceived) {
    script.waitClosed = {LIBSSH2_ERROR_EAGAIN};
    AlarmOf alarm([this] {
        ssh().setAlarm(nullptr);
        std::ostringstream status;
        ssh().get(status, "dumping-status.xml");
    });
    ssh().setAlarm(&alarm);
    exec();
    EXPECT_EQ(1, alarm.served);
    EXPECT_THAT(waits().waits, IsEmpty());
}

TEST_F(SshExec, LetsTheAlarmRunCommandsOfItsOwn) {
    script.reads[0] = {{"before "}, FakeRead::nothingYet(), {"after"}};
    FakeChannel& nested = fake().nextChannel();
    nested.reads[0] = {{"status"}};
    std::ostringstream status;
    AlarmOf alarm([&] {
        ssh().setAlarm(nullptr);
        EXPECT_EQ(0, ssh().get(status, "dumping-status.xml"));
    });
    ssh().setAlarm(&alarm);
    EXPECT_EQ(0, exec());
    EXPECT_EQ("status", status.str());
    EXPECT_EQ("before after", out.str());
    EXPECT_TRUE(nested.freed);
}

TEST_F(SshExec, DoesNotSleepOnOutputThatTheAlarmsOwnCommandHasQueued) {
    script.neverEof = true;
    AlarmOf alarm([&] {
        ssh().setAlarm(nullptr);
        script.reads[0] = {{"queued meanwhile"}};
        script.neverEof = false;
    });
    ssh().setAlarm(&alarm);
    exec();
    EXPECT_EQ("queued meanwhile", out.str());
    EXPECT_THAT(waits().waits, IsEmpty());
}

TEST_F(SshExec, PassesErrorsOfTheAlarmOnAndFreesTheChannel) {
    script.reads[0] = {FakeRead::nothingYet()};
    AlarmOf alarm([] { throw std::logic_error("from the alarm"); });
    ssh().setAlarm(&alarm);
    EXPECT_THROW(exec(), std::logic_error);
    EXPECT_TRUE(script.freed);
    EXPECT_EQ(debugRecord("k.libssh2pp.Channel", "Closed"), log().records().back());
}

TEST_F(SshExec, HoldsTicksBackInEveryCallOfTheLibrary) {
    fake().onCall = [](const std::string& call) {
        sigset_t mask;
        sigprocmask(SIG_BLOCK, nullptr, &mask);
        EXPECT_EQ(1, sigismember(&mask, SIGALRM)) << call;
    };
    script.reads[0] = {FakeRead::nothingYet(), {"x"}};
    script.writes = {LIBSSH2_ERROR_EAGAIN, LIBSSH2_ERROR_EAGAIN, LIBSSH2_ERROR_EAGAIN, LIBSSH2_ERROR_EAGAIN};
    EXPECT_EQ(0, exec("input"));
}

TEST_F(SshExec, LetsATickInUnderACommandWhoseOutputNeverPauses) {
    static volatile std::sig_atomic_t ticks;
    ticks = 0;
    void (*const handlerBefore)(int) = std::signal(SIGALRM, [](int) { ticks = ticks + 1; });
    script.reads[0] = {{"first"}, {"second"}, {"third"}};
    std::vector<int> ticksAtRead;
    fake().onCall = [&](const std::string& call) {
        if (call.starts_with("read 0")) {
            ticksAtRead.push_back(int{ticks});
            raise(SIGALRM);
        }
    };
    exec();
    std::signal(SIGALRM, handlerBefore);
    EXPECT_THAT(waits().waits, IsEmpty());
    EXPECT_THAT(ticksAtRead, ElementsAre(0, 1, 2));
}

TEST_F(SshExec, NeitherHangsNorLosesInputWhenTheCommandWritesMoreThanItReads) {
    // The remote side takes more input only after its output was read.
    std::string echoed;
    script.neverEof = true;
    fake().onCall = [&](const std::string& call) {
        if (call.starts_with("read 0") && script.reads[0].empty() && echoed.size() < script.input.size()) {
            script.reads[0] = {{script.input.substr(echoed.size())}};
            echoed = script.input;
            script.writes = {};
        } else if (call.starts_with("write") && script.input.size() > echoed.size()) {
            script.writes = {LIBSSH2_ERROR_EAGAIN};
        } else if (call == "send_eof") {
            script.neverEof = false;
            script.reads[0] = {{script.input.substr(echoed.size())}};
        }
    };
    const std::string input(1000000, 'i');
    EXPECT_EQ(0, exec(input));
    EXPECT_EQ(input.size(), script.input.size());
    EXPECT_EQ(input.size(), out.str().size());
}

TEST_F(SshExec, ReturnsTheStatusOfACommandThatExitsWithoutReadingItsInput) {
    script.writes.assign(1000, LIBSSH2_ERROR_EAGAIN);
    script.pollEvents = {LIBSSH2_POLLFD_CHANNEL_CLOSED};
    script.exitStatus = 9;
    EXPECT_EQ(9, exec(std::string(30000000, 'i')));
}

TEST_F(SshExec, IsStatus255WhenTheServerRefusesTheCommand) {
    // The channel stays open: reading from it would never end.
    script.startup = {LIBSSH2_ERROR_CHANNEL_REQUEST_DENIED};
    script.neverEof = true;
    EXPECT_EQ(255, exec("input"));
    EXPECT_EQ(0U, fake().countOf("read"));
    EXPECT_EQ(0U, fake().countOf("write"));
    EXPECT_THAT(log().records(), Contains(debugRecord("k.Ssh", "Execution finished with return code 255")));
}

TEST_F(SshExec, Is128PlusTheSignalThatKilledTheCommand) {
    script.exitSignal = "KILL";
    EXPECT_EQ(137, exec());
}

TEST_F(SshExec, TellsAConnectionLostBetweenTheEndOfOutputAndTheStatus) {
    script.waitClosed = {LIBSSH2_ERROR_SOCKET_RECV};
    EXPECT_THROW(exec(), Exc<&SshConnectionFault>);
}

TEST_F(SshExec, TellsAConnectionLostWhileItReadsAndNeverCountsTheError) {
    script.reads[0] = {{"some"}, FakeRead::failure(LIBSSH2_ERROR_SOCKET_RECV)};
    EXPECT_THROW(exec(), Exc<&SshConnectionFault>);
    EXPECT_THAT(counter.sizes, ElementsAre(4));
    EXPECT_EQ("some", out.str());
    EXPECT_TRUE(script.freed);
}

TEST_F(SshExec, TellsAConnectionThatTheLibraryReportsClosedWhileItWaits) {
    script.neverEof = true;
    script.pollEvents = {0, 0, LIBSSH2_POLLFD_SESSION_CLOSED | LIBSSH2_POLLFD_CHANNEL_CLOSED};
    try {
        exec();
        FAIL() << "no error";
    } catch (const Exc<&SshConnectionFault>& error) {
        EXPECT_STREQ("Lost connection with the remote host", error.what());
    }
}

TEST_F(SshExec, TellsAFailedWriteOfInput) {
    script.writes = {LIBSSH2_ERROR_SOCKET_SEND};
    EXPECT_THROW(exec("input"), Exc<&StreamWrite>);
    EXPECT_TRUE(script.freed);
}

TEST_F(SshExec, TellsAFailedEndOfInput) {
    script.sendEof = {LIBSSH2_ERROR_SOCKET_SEND};
    fake().lastErrorText = "Unable to send EOF on channel";
    try {
        exec();
        FAIL() << "no error";
    } catch (const Exc<&UnableToSendEof>& error) {
        EXPECT_STREQ("Unable to send EOF to SSH channel: Unable to send EOF on channel", error.what());
    }
}

TEST_F(SshExec, TellsASinkThatFails) {
    script.reads[0] = {{"output"}};
    out.setstate(std::ios::badbit);
    EXPECT_THROW(exec(), Exc<&StreamWrite>);
}

TEST_F(SshExec, TellsASinkForStandardErrorThatFails) {
    script.reads[1] = {{"output"}};
    err.setstate(std::ios::failbit);
    EXPECT_THROW(exec(), Exc<&StreamWrite>);
}

TEST_F(SshExec, IsAnInvalidHandleWhenNoChannelCanBeHad) {
    fake().opens = {LIBSSH2_ERROR_CHANNEL_FAILURE};
    EXPECT_THROW(exec(), Exc<&InvalidHandle>);
}

TEST_F(SshExec, DoesNotWaitForACommandThatItLeavesBecauseOfAnError) {
    script.reads[0] = {{"output"}};
    script.neverEof = true;
    script.free.assign(1000, LIBSSH2_ERROR_EAGAIN);
    out.setstate(std::ios::badbit);
    EXPECT_THROW(exec(), Exc<&StreamWrite>);
    EXPECT_THAT(waits().waits, IsEmpty());
    EXPECT_THAT(fake().callsInBlockingMode, IsEmpty());
}

TEST_F(SshExec, RunsFurtherCommandsAfterOneThatItLeft) {
    script.reads[0] = {{"output"}};
    script.free.assign(1000, LIBSSH2_ERROR_EAGAIN);
    out.setstate(std::ios::badbit);
    EXPECT_THROW(exec(), Exc<&StreamWrite>);
    out.clear();
    fake().opens = {LIBSSH2_ERROR_EAGAIN};
    fake().nextChannel().reads[0] = {{"second"}};
    EXPECT_EQ(0, exec());
    EXPECT_EQ("second", out.str());
}

TEST_F(SshExec, UsesOneChannelAtATimeAndFreesEach) {
    exec();
    exec();
    EXPECT_EQ(2U, fake().openedChannels());
    EXPECT_THAT(fake().callsOf("free"), ElementsAre("free", "free"));
}

TEST_F(SshExec, IsEndedBeforeTheNextChunkWhenTheRunIsAskedToEnd) {
    EXPECT_EQ(0, statusOfChild([this] {
                  struct EndingCounter : Ssh::Counter {
                      void operator()(int /*bytes*/) override { terminateProgram(); }
                  } ending;
                  script.reads[0] = {{"first"}, {"second"}};
                  std::istringstream in;
                  EXPECT_THROW(ssh().exec("command", in, out, err, true, true, ending),
                               MigrationTerminatedException);
                  EXPECT_EQ("", out.str());
                  EXPECT_TRUE(script.freed);
              }));
}

TEST_F(SshExec, EndsAsUsualWhenTheRunIsAskedToEndAfterTheLastChunk) {
    EXPECT_EQ(0, statusOfChild([this] {
                  fake().onCall = [](const std::string& call) {
                      if (call == "send_eof") {
                          terminateProgram();
                      }
                  };
                  script.exitStatus = 3;
                  EXPECT_EQ(3, exec());
              }));
}

using SshExecLog = SshExec;

TEST_F(SshExecLog, ShowsOutputRawUnlessItIsQuiet) {
    const std::string bytes("a\0\x80\n\xff%s", 7);
    script.reads[0] = {{bytes}};
    script.reads[1] = {{"err"}};
    exec("", false);
    EXPECT_THAT(log().records(), Contains(debugRecord("k.Ssh", "remote stdout -> " + bytes)));
    EXPECT_THAT(log().records(), Contains(debugRecord("k.Ssh", "remote stderr -> err")));
}

TEST_F(SshExecLog, ShowsEachChunkInALineOfItsOwn) {
    script.reads[0] = {{"first"}, {"second"}};
    exec("", false);
    EXPECT_THAT(log().messages("k.Ssh"),
                ElementsAre("Executing command on the remote host", "remote stdout -> first",
                            "remote stdout -> second", "Execution finished with return code 0"));
}

TEST_F(SshExecLog, IsSilentAboutQuietOutputAndInput) {
    script.reads[0] = {{"some output"}};
    script.reads[1] = {{"some error"}};
    exec("some input");
    EXPECT_THAT(log().text(), Not(HasSubstr("some")));
    EXPECT_THAT(log().text(), Not(HasSubstr("->")));
}

TEST_F(SshExecLog, ShowsInputUnlessItIsQuiet) {
    exec("some input", true, false);
    EXPECT_THAT(log().records(), Contains(debugRecord("k.Ssh", "remote stdin <- some input")));
}

TEST_F(SshExecLog, ShowsNoInputInTheFormWithoutInput) {
    ssh().exec("command", out, err, false, counter);
    EXPECT_THAT(log().text(), Not(HasSubstr("stdin")));
    EXPECT_EQ("", script.input);
}

using SshExecSecrets = SshExec;

TEST_F(SshExecSecrets, AreHiddenInTheLogAlsoAcrossChunksButNotInStandardOutput) {
    script.reads[0] = {{"<Sesame-"}, {"4711>"}};
    exec("", false);
    EXPECT_EQ("<Sesame-4711>", out.str());
    EXPECT_THAT(log().text(), Not(HasSubstr("Sesame")));
    EXPECT_THAT(log().text(), HasSubstr("remote stdout -> ********>"));
}

TEST_F(SshExecSecrets, AreHiddenInCapturedStandardError) {
    script.reads[1] = {{"syntax error near 'Sesa"}, {"me-4711'"}};
    exec();
    EXPECT_EQ("syntax error near '********'", err.str());
}

TEST_F(SshExecSecrets, LeaveTheirUnfinishedBeginningInStandardError) {
    script.reads[1] = {{"near Sesame-"}};
    exec("", false);
    EXPECT_EQ("near Sesame-", err.str());
    EXPECT_THAT(log().messages("k.Ssh"), Contains("remote stderr -> Sesame-"));
}

TEST_F(SshExecSecrets, MayBeAddedLater) {
    ssh().addSecret("sudo-password");
    script.reads[1] = {{"sudo-password Sesame-4711"}};
    exec();
    EXPECT_EQ("******** ********", err.str());
}

TEST_F(SshExecSecrets, LeaveNoPieceLongerThan65536) {
    struct LongestWrite : std::stringbuf {
        std::streamsize longest = 0;
        std::streamsize xsputn(const char* data, std::streamsize size) override {
            longest = std::max(longest, size);
            return std::stringbuf::xsputn(data, size);
        }
    } sink;
    std::ostream longErr(&sink);
    ssh().addSecret("x");
    std::string bytes;
    while (bytes.size() < 65536) {
        bytes += "x-";
    }
    script.reads[0] = {{bytes}};
    script.reads[1] = {{bytes}};
    std::istringstream in;
    ssh().exec("command", in, out, longErr, false, true, counter);
    EXPECT_EQ(bytes.size() / 2 * std::string("********-").size(), sink.str().size());
    EXPECT_LE(sink.longest, 65536);
    for (const std::string& message : log().messages("k.Ssh")) {
        EXPECT_LE(message.size(), std::string("remote stdout -> ").size() + 65536);
    }
}

class SshCompatibility : public SshOverFake {};

TEST_F(SshCompatibility, RunsCommandsBesideTheReserveChannel) {
    fake().startup = {LIBSSH2_ERROR_KEY_EXCHANGE_FAILURE, 0};
    connect();
    fake().opens = {LIBSSH2_ERROR_EAGAIN, LIBSSH2_ERROR_EAGAIN, LIBSSH2_ERROR_EAGAIN};
    fake().nextChannel().reads[0] = {{"works"}};
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_EQ(0, ssh().exec("command", out, err, true, Ssh::null_counter));
    EXPECT_EQ("works", out.str());
    EXPECT_FALSE(fake().channel(0).freed);
    EXPECT_EQ("", fake().channel(0).input);
}

}  // namespace
}  // namespace korva
