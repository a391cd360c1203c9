// SPDX-License-Identifier: Apache-2.0
#include "utils/fork_exec.h"

#include "commons/system_error.h"
#include "support/child_process.h"
#include "support/files.h"
#include "support/scoped_env.h"
#include "support/syscall_filter.h"
#include "support/temp_dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace korva {
namespace {

using test::failSyscall;
using test::killOnCloseFrom;
using test::readFile;
using test::redirectToFile;
using test::ScopedEnv;
using test::statusOfChild;
using test::TempDir;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// What a run of a program leaves behind.
struct Result {
    std::string output;
    std::string error;
    int code = 0;
};

struct How {
    std::string input{};
    std::string user{};
    std::map<std::string, std::string> env{};
};

Result run(const std::vector<std::string>& words, const How& how = {}) {
    ArgList args;
    for (const std::string& word : words) {
        args << word;
    }
    Result result;
    result.code = forkExecvGetInOutErrSuidEnv(how.input, result.output, result.error, words.front(), args,
                                              how.user, how.env);
    return result;
}

Result shell(const std::string& script, const How& how = {}) {
    return run({"sh", "-c", script}, how);
}

/// Bytes of all values in an order that shows any loss or repetition.
std::string pattern(std::size_t size) {
    std::string text(size, '\0');
    unsigned int state = 1;
    for (char& c : text) {
        state = state * 1103515245U + 12345U;
        c = static_cast<char>(state >> 16U);
    }
    return text;
}

bool hasChildren() {
    return ::waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD;
}

int openDescriptors() {
    int count = 0;
    for (int fd = 0; fd < 1024; ++fd) {
        count += ::fcntl(fd, F_GETFD) != -1 ? 1 : 0;
    }
    return count;
}

class ForkExec : public testing::Test {
  protected:
    // As in the program itself: writing to a command that has gone is an error, not the end.
    ForkExec() : pipeAction_(std::signal(SIGPIPE, SIG_IGN)) {}
    ~ForkExec() override { std::signal(SIGPIPE, pipeAction_); }

  private:
    void (*pipeAction_)(int);
};

TEST_F(ForkExec, CollectsBothOutputsAndTheStatus) {
    const Result result = shell("echo out; echo err >&2; exit 7");
    EXPECT_EQ("out\n", result.output);
    EXPECT_EQ("err\n", result.error);
    EXPECT_EQ(7, result.code);
}

TEST_F(ForkExec, GivesTheLargestStatus) {
    EXPECT_EQ(255, shell("exit 255").code);
}

TEST_F(ForkExec, PassesArgumentsUntouched) {
    EXPECT_EQ("a b|$HOME||'\n|",
              run({"sh", "-c", R"(printf '%s|' "$@")", "sh", "a b", "$HOME", "", "'\n"}).output);
}

TEST_F(ForkExec, FeedsTheInput) {
    const std::string text("some\0input\n", 11);
    EXPECT_EQ(text, run({"cat"}, {.input = text}).output);
    EXPECT_EQ("", run({"cat"}).output);
}

TEST_F(ForkExec, DoesNotDeadlockWhenInputAndBothOutputsExceedThePipes) {
    const std::string input = pattern(3000000);
    const Result result = shell("tee /dev/stderr", {.input = input});
    EXPECT_EQ(0, result.code);
    EXPECT_TRUE(input == result.output) << result.output.size();
    EXPECT_TRUE(input == result.error) << result.error.size();
}

TEST_F(ForkExec, HandlesInputsAroundItsBufferSizes) {
    for (const std::size_t size :
         {1U, 4095U, 4096U, 4097U, 65535U, 65536U, 65537U, 262143U, 262144U, 262145U, 524288U}) {
        const std::string input = pattern(size);
        EXPECT_TRUE(input == run({"cat"}, {.input = input}).output) << size;
    }
}

TEST_F(ForkExec, ReportsMinusOneForAChildKilledByASignal) {
    const Result result = shell("echo before; kill -9 $$");
    EXPECT_EQ(-1, result.code);
    EXPECT_EQ("before\n", result.output);
}

TEST_F(ForkExec, GivesStatusOneAndAMessageOnBothOutputsForAMissingProgram) {
    const std::string message = std::string(program_invocation_short_name) +
                                ": forkExecvPipes: execv() failed: No such file or directory\n"
                                "\nSystem error 2: No such file or directory\n";
    const Result result = run({"/no/such/program"});
    EXPECT_EQ(1, result.code);
    EXPECT_EQ(message, result.error);
    EXPECT_EQ(message, result.output);
}

TEST_F(ForkExec, GivesStatusOneForAFileThatIsNotExecutable) {
    const Result result = run({"/etc/passwd"});
    EXPECT_EQ(1, result.code);
    EXPECT_THAT(result.error, HasSubstr("execv() failed: Permission denied"));
}

TEST_F(ForkExec, LooksProgramsUpThroughPath) {
    const TempDir directory;
    test::writeFile(directory / "korva-test-tool", "#!/bin/sh\necho found\n");
    ASSERT_EQ(0, ::chmod((directory / "korva-test-tool").c_str(), 0700));
    const ScopedEnv path("PATH", directory.path() + ":/usr/bin:/bin");
    EXPECT_EQ("found\n", run({"korva-test-tool"}).output);
}

TEST_F(ForkExec, SetsVariablesInKeyOrder) {
    const Result result = run({"env"}, {.env = {{"KORVA_Z", "3"}, {"KORVA_A", "1"}, {"KORVA_M", "2"}}});
    EXPECT_THAT(result.output, HasSubstr("KORVA_A=1\nKORVA_M=2\nKORVA_Z=3\n"));
}

TEST_F(ForkExec, ReplacesVariablesOfOurOwn) {
    const ScopedEnv ours("KORVA_OURS", "old");
    EXPECT_EQ("new\n", shell("echo $KORVA_OURS", {.env = {{"KORVA_OURS", "new"}}}).output);
    EXPECT_STREQ("old", std::getenv("KORVA_OURS"));
}

TEST_F(ForkExec, GivesNoPasswordVariableToTheChild) {
    const ScopedEnv password("OVN_PASSWORD", "loginSecret");
    const ScopedEnv sudoPassword("OVN_SUDO_PASSWORD", "sudoSecret");
    EXPECT_THAT(run({"env"}).output, Not(HasSubstr("Secret")));
    EXPECT_STREQ("sudoSecret", std::getenv("OVN_SUDO_PASSWORD"));
}

TEST_F(ForkExec, EndsTheChildWhenAVariableCannotBeSet) {
    const Result result = run({"echo", "started"}, {.env = {{"NOT=A=NAME", "x"}}});
    EXPECT_EQ(1, result.code);
    EXPECT_EQ(
        std::string(program_invocation_short_name) + ": forkExecvPipes: setenv() falied: Invalid argument\n",
        result.error);
    EXPECT_THAT(result.output, Not(HasSubstr("started\n")));
}

TEST_F(ForkExec, RunsAsTheGivenAccountInItsHomeDirectory) {
    const passwd account = *::getpwnam("daemon");
    const std::string uid = std::to_string(account.pw_uid);
    const std::string gid = std::to_string(account.pw_gid);
    const std::string home = account.pw_dir;
    const Result result = shell("id -ru; id -u; id -rg; id -g; id -G; pwd -P", {.user = "daemon"});
    EXPECT_EQ(0, result.code) << result.error;
    EXPECT_THAT(result.output, StartsWith(uid + "\n" + uid + "\n" + gid + "\n" + gid + "\n" + gid));
    EXPECT_THAT(result.output, EndsWith("\n" + home + "\n"));
}

TEST_F(ForkExec, KeepsTheIdentityForRoot) {
    EXPECT_EQ("0\n", run({"id", "-u"}, {.user = "root"}).output);
}

TEST_F(ForkExec, KeepsTheIdentityForANonexistentAccount) {
    EXPECT_EQ("0\n", run({"id", "-u"}, {.user = "no-such-account"}).output);
}

TEST_F(ForkExec, EndsTheChildWhenTheHomeDirectoryIsMissing) {
    ASSERT_NE(0, ::access(::getpwnam("nobody")->pw_dir, F_OK)) << "this account is expected to have no home";
    const Result result = run({"id", "-u"}, {.user = "nobody"});
    EXPECT_EQ(1, result.code);
    const std::string message =
        std::string(program_invocation_short_name) +
        ": forkExecvPipes: p_setuid() to 'nobody' failed: No such file or directory\n";
    EXPECT_EQ(message, result.error);
    EXPECT_EQ(message, result.output);
}

/// The error output of a run as another account in which one system call fails.
Result runWithoutSyscall(std::uint32_t number) {
    const TempDir directory;
    Result result;
    result.code = statusOfChild([&] {
        failSyscall(number, EPERM);
        const Result inner = run({"echo", "started"}, {.user = "daemon"});
        test::writeFile(directory / "err", inner.error);
        test::writeFile(directory / "out", inner.output);
        ::_exit(inner.code);
    });
    result.error = readFile(directory / "err");
    result.output = readFile(directory / "out");
    return result;
}

TEST_F(ForkExec, NeverRunsTheProgramAsSomebodyElse) {
    const std::map<std::uint32_t, std::string> failures{
        {__NR_setgroups, "Unable to init new groups for user daemon: Operation not permitted\n"},
        {__NR_setgid, "Failed to setgid: 1\n"},
        {__NR_setuid, "Failed to setuid: 1\n"},
    };
    for (const auto& [number, message] : failures) {
        const Result result = runWithoutSyscall(number);
        EXPECT_EQ(1, result.code);
        EXPECT_THAT(result.error, StartsWith(std::string(program_invocation_short_name) + ": " + message));
        EXPECT_EQ(result.error, result.output);
    }
}

TEST_F(ForkExec, ClosesAllDescriptorsOfTheProgram) {
    const std::string script =
        "for fd in 3 4 5 6 7 8 9 700; do test -e /proc/self/fd/$fd && echo $fd; done; :";
    EXPECT_EQ(0, statusOfChild([&] {
                  for (const int fd : {3, 4, 5, 6, 7, 8, 9, 700}) {
                      ASSERT_EQ(fd, ::dup2(STDIN_FILENO, fd));
                  }
                  EXPECT_EQ("", shell(script).output);
              }));
}

void raiseDescriptorLimit() {
    constexpr rlim_t kMillion = 1000000;
    const rlimit wanted{kMillion, kMillion};
    if (::setrlimit(RLIMIT_NOFILE, &wanted) != 0) {  // as much as this machine allows
        rlimit limit{};
        ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
        limit.rlim_cur = std::min(limit.rlim_max, kMillion);
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
    }
}

TEST_F(ForkExec, ClosesDescriptorsWithoutTouchingEachWhateverTheLimit) {
    EXPECT_EQ(0, statusOfChild([] {
                  raiseDescriptorLimit();
                  const int high = ::getdtablesize() - 1;
                  ASSERT_EQ(high, ::dup2(STDIN_FILENO, high));
                  killOnCloseFrom(1000);
                  const Result result =
                      shell("test -e /proc/self/fd/" + std::to_string(high) + " && echo open; exit 5");
                  EXPECT_EQ(5, result.code);
                  EXPECT_EQ("", result.output);
              }));
}

TEST_F(ForkExec, ClosesDescriptorsOneByOneWhereTheKernelHasNoCloseRange) {
    EXPECT_EQ(0, statusOfChild([] {
                  ASSERT_EQ(700, ::dup2(STDIN_FILENO, 700));
                  failSyscall(__NR_close_range, ENOSYS);
                  const Result result = shell("test -e /proc/self/fd/700 && echo open; exit 5");
                  EXPECT_EQ(5, result.code);
                  EXPECT_EQ("", result.output);
              }));
}

TEST_F(ForkExec, GivesTheChildDefaultActionsForPipeAndFileSizeSignals) {
    EXPECT_EQ(
        0, statusOfChild([] {
            std::signal(SIGPIPE, SIG_IGN);
            std::signal(SIGXFSZ, SIG_IGN);
            const std::string ignored = run({"sed", "-n", "s/^SigIgn:\\s*//p", "/proc/self/status"}).output;
            const unsigned long mask = std::stoul(ignored, nullptr, 16);
            EXPECT_EQ(0U, mask & (1UL << (SIGPIPE - 1)));
            EXPECT_EQ(0U, mask & (1UL << (SIGXFSZ - 1)));
        }));
}

TEST_F(ForkExec, GivesTheChildAnEmptySignalMask) {
    EXPECT_EQ(0, statusOfChild([] {
                  sigset_t all;
                  ::sigfillset(&all);
                  ::sigprocmask(SIG_SETMASK, &all, nullptr);
                  EXPECT_EQ("0000000000000000\n",
                            run({"sed", "-n", "s/^SigBlk:\\s*//p", "/proc/self/status"}).output);
              }));
}

TEST_F(ForkExec, LearnsTheStatusAlsoWhenSigchldIsIgnored) {
    EXPECT_EQ(0, statusOfChild([] {
                  std::signal(SIGCHLD, SIG_IGN);
                  EXPECT_EQ(7, shell("exit 7").code);
                  struct sigaction now {};
                  ::sigaction(SIGCHLD, nullptr, &now);
                  EXPECT_EQ(SIG_IGN, now.sa_handler);
              }));
}

TEST_F(ForkExec, GoesOnWhenSignalsInterruptIt) {
    EXPECT_EQ(0, statusOfChild([] {
                  struct sigaction action {};
                  action.sa_handler = [](int) {};
                  ::sigaction(SIGALRM, &action, nullptr);
                  constexpr itimerval kEvery2Ms{{0, 2000}, {0, 2000}};
                  ::setitimer(ITIMER_REAL, &kEvery2Ms, nullptr);
                  const std::string input = pattern(1000000);
                  const Result result =
                      shell("sleep 0.1; cat; exec >&- 2>&-; sleep 0.1; exit 3", {.input = input});
                  EXPECT_EQ(3, result.code);
                  EXPECT_TRUE(input == result.output);
              }));
}

TEST_F(ForkExec, WorksWhenStandardDescriptorsAreClosed) {
    const TempDir directory;
    const int status = statusOfChild([&] {
        for (const int fd : {0, 1, 2}) {
            ::close(fd);
        }
        const Result result = shell("cat; echo err >&2; exit 4", {.input = "in"});
        test::writeFile(directory / "seen",
                        result.output + "|" + result.error + "|" + std::to_string(result.code));
        ::_exit(0);
    });
    EXPECT_EQ(0, status);
    EXPECT_EQ("in|err\n|4", readFile(directory / "seen"));
}

TEST_F(ForkExec, FlushesBuffersOfTheProgramOnlyOnce) {
    const TempDir directory;
    const int status = statusOfChild([&] {
        std::FILE* previous = std::freopen((directory / "out").c_str(), "w", stdout);
        ASSERT_NE(nullptr, previous);
        std::fputs("buffered", stdout);
        EXPECT_THAT(run({"/no/such/program"}).output, Not(HasSubstr("buffered")));
    });
    EXPECT_EQ(0, status);
    EXPECT_EQ("buffered", readFile(directory / "out"));
}

TEST_F(ForkExec, FailsWhenTheProgramDoesNotReadItsInput) {
    try {
        run({"true"}, {.input = std::string(1000000, 'x')});
        FAIL();
    } catch (const SystemError& error) {
        EXPECT_STREQ("writeToString failed: Broken pipe", error.what());
    }
}

TEST_F(ForkExec, LeavesNeitherChildNorDescriptorsBehind) {
    EXPECT_EQ(0, statusOfChild([] {
                  const int before = openDescriptors();
                  shell("echo x");
                  EXPECT_THROW(run({"true"}, {.input = std::string(1000000, 'x')}), SystemError);
                  EXPECT_EQ(before, openDescriptors());
                  EXPECT_FALSE(hasChildren());
              }));
}

TEST_F(ForkExec, RunsCommandsBeyondTheReachOfSelect) {
    EXPECT_EQ(0, statusOfChild([] {
                  raiseDescriptorLimit();
                  for (int fd = 3; fd < 1200; ++fd) {
                      ASSERT_NE(-1, ::dup2(STDIN_FILENO, fd));
                  }
                  const Result result = run({"cat"}, {.input = "text"});
                  EXPECT_EQ("text", result.output);
              }));
}

/// The error output of a program that ends with status 1 when it runs a command while system calls fail.
std::string lastWordsWithout(const std::vector<std::uint32_t>& numbers, std::uint32_t error) {
    const TempDir directory;
    EXPECT_EQ(1, statusOfChild([&] {
                  redirectToFile(STDOUT_FILENO, directory / "out");
                  redirectToFile(STDERR_FILENO, directory / "err");
                  for (const std::uint32_t number : numbers) {
                      failSyscall(number, error);
                  }
                  run({"true"});
                  ::_exit(0);
              }));
    return readFile(directory / "err");
}

TEST_F(ForkExec, EndsTheProgramWhenThereIsNoPipe) {
    EXPECT_EQ(std::string(program_invocation_short_name) +
                  ": forkExecvGetOutErr: pipe() failed\nSystem error 24: Too many open files\n",
              lastWordsWithout({__NR_pipe, __NR_pipe2}, EMFILE));
}

TEST_F(ForkExec, EndsTheProgramWhenAPipeCannotBeMadeNonBlocking) {
    EXPECT_EQ(std::string(program_invocation_short_name) +
                  ": forkExecvGetOutErr: fcntl(O_NONBLOCK) failed\nSystem error 22: Invalid argument\n",
              lastWordsWithout({__NR_fcntl}, EINVAL));
}

/// The text of the SystemError that a run throws when a system call fails.
std::string errorWithoutSyscall(std::uint32_t number, std::uint32_t error) {
    const TempDir directory;
    statusOfChild([&] {
        failSyscall(number, error);
        try {
            run({"true"});
        } catch (const SystemError& failure) {
            test::writeFile(directory / "what", failure.what());
        }
        ::_exit(0);
    });
    return readFile(directory / "what");
}

TEST_F(ForkExec, ReportsAFailedFork) {
    EXPECT_EQ("forkExecvPipes: fork() failed: Resource temporarily unavailable",
              errorWithoutSyscall(__NR_clone, EAGAIN));
}

TEST_F(ForkExec, ReportsAFailedWaitForData) {
    EXPECT_EQ("forkExecvGetOutErr: select() failed: Cannot allocate memory",
              errorWithoutSyscall(__NR_poll, ENOMEM));
}

TEST_F(ForkExec, ReportsMinusOneWhenTheStatusCannotBeHad) {
    EXPECT_EQ(0, statusOfChild([] {
                  failSyscall(__NR_wait4, EINVAL);
                  EXPECT_EQ(-1, run({"true"}).code);
              }));
}

TEST(ForkExecShortForms, FillInTheirDefaults) {
    ArgList args;
    args << "sh"
         << "-c"
         << "cat; echo $KORVA_X; id -u; echo err >&2; exit 6";
    const std::map<std::string, std::string> env{{"KORVA_X", "x"}};
    std::string output;
    std::string error;
    EXPECT_EQ(6, forkExecvGetOutErrSuidEnv(output, error, "sh", args, "", env));
    EXPECT_EQ("x\n0\n", output);
    EXPECT_EQ("err\n", error);
    output.clear();
    error.clear();
    EXPECT_EQ(6, forkExecvGetOutErrSuid(output, error, "sh", args, "daemon"));
    EXPECT_EQ("\n" + std::to_string(::getpwnam("daemon")->pw_uid) + "\n", output);
    EXPECT_EQ("err\n", error);
    output.clear();
    error.clear();
    EXPECT_EQ(6, forkExecvGetOutErr(output, error, "sh", args));
    EXPECT_EQ("\n0\n", output);
    EXPECT_EQ("err\n", error);
    output.clear();
    EXPECT_EQ(6, forkExecvGetOut(output, "sh", args));
    EXPECT_EQ("\n0\n", output);
}

TEST(ForkExecPipes, TakesMinusOneForTheNullDevice) {
    ArgList args;
    args << "sh"
         << "-c"
         << "for fd in 0 1 2; do test \"$(readlink /proc/$$/fd/$fd)\" = /dev/null || exit 1; done";
    const pid_t pid = forkExecvPipes(-1, -1, -1, "sh", args, "", {});
    int status = -1;
    ASSERT_EQ(pid, ::waitpid(pid, &status, 0));
    EXPECT_EQ(0, status);
}

TEST(Dup2Custom, MovesADescriptor) {
    const int fd = ::open("/dev/null", O_RDONLY);
    EXPECT_EQ(900, dup2Custom(fd, 900));
    EXPECT_EQ(-1, ::fcntl(fd, F_GETFD));
    EXPECT_NE(-1, ::fcntl(900, F_GETFD));
    ::close(900);
}

TEST(Dup2Custom, LeavesADescriptorInItsPlace) {
    const int fd = ::open("/dev/null", O_RDONLY);
    EXPECT_EQ(fd, dup2Custom(fd, fd));
    EXPECT_NE(-1, ::fcntl(fd, F_GETFD));
    ::close(fd);
}

TEST(Dup2Custom, OpensTheNullDeviceForMinusOne) {
    EXPECT_EQ(900, dup2Custom(-1, 900));
    EXPECT_EQ(O_RDWR, ::fcntl(900, F_GETFL) & O_ACCMODE);
    EXPECT_EQ("/dev/null", std::filesystem::read_symlink("/proc/self/fd/900"));
    ::close(900);
}

TEST(Dup2Custom, ReportsANullDeviceThatCannotBeOpened) {
    EXPECT_EQ(0, statusOfChild([] {
                  failSyscall(__NR_openat, EMFILE);
                  try {
                      dup2Custom(-1, 900);
                      ADD_FAILURE();
                  } catch (const SystemError& error) {
                      EXPECT_STREQ("dup2Custom failed: Too many open files", error.what());
                  }
              }));
}

class PipeStreams : public testing::Test {
  protected:
    PipeStreams() { EXPECT_EQ(0, ::pipe2(ends.data(), O_NONBLOCK)); }
    ~PipeStreams() override {
        ::close(ends[0]);
        ::close(ends[1]);
    }

    std::array<int, 2> ends{-1, -1};
};

TEST_F(PipeStreams, ReadToStringTellsThatMoreMayCome) {
    std::string text = "before ";
    ASSERT_EQ(5, ::write(ends[1], "after", 5));
    EXPECT_TRUE(readToString(ends[0], text));
    EXPECT_EQ("before after", text);
}

TEST_F(PipeStreams, ReadToStringTellsTheEnd) {
    std::string text;
    ASSERT_EQ(4, ::write(ends[1], "last", 4));
    ::close(std::exchange(ends[1], -1));
    EXPECT_FALSE(readToString(ends[0], text));
    EXPECT_EQ("last", text);
}

TEST_F(PipeStreams, ReadToStringReportsAFailure) {
    std::string text;
    try {
        readToString(-1, text);
        FAIL();
    } catch (const SystemError& error) {
        EXPECT_STREQ("readToString failed: Bad file descriptor", error.what());
    }
}

TEST_F(PipeStreams, WriteFromStringKeepsWhatDoesNotFit) {
    const std::string whole = pattern(1000000);
    std::string rest = whole;
    writeFromString(ends[1], rest);
    ASSERT_FALSE(rest.empty());
    ASSERT_LT(rest.size(), whole.size());
    std::string read;
    readToString(ends[0], read);
    EXPECT_TRUE(whole == read + rest);
}

TEST_F(PipeStreams, WriteFromStringReportsAFailure) {
    std::string text = "x";
    try {
        writeFromString(-1, text);
        FAIL();
    } catch (const SystemError& error) {
        EXPECT_STREQ("writeToString failed: Bad file descriptor", error.what());
    }
    EXPECT_EQ("x", text);
}

}  // namespace
}  // namespace korva
