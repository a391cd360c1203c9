// SPDX-License-Identifier: Apache-2.0
#include "commons/exception.h"
#include "support/allocation_failure.h"
#include "support/captured_stream.h"
#include "support/child_process.h"
#include "tallowick/driver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <log4cpp/Category.hh>
#include <log4cpp/OstreamAppender.hh>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <exception>
#include <functional>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>

int mainOfTheProgram(int argc, char** argv);

namespace korva {
namespace {

using test::CapturedStream;
using test::statusOfChild;
using testing::EndsWith;
using testing::StartsWith;

KORVA_ERROR_TAG(SomeError, "some message about %1%")

std::function<int(int, char**)> realMain;

int runMain() {
    char name[] = "tallowick";
    char* argv[] = {name, nullptr};
    return mainOfTheProgram(1, argv);
}

}  // namespace

int real_main(int argc, char** argv) {
    return realMain(argc, argv);
}

namespace {

/// What main() leaves on standard error, having returned 1.
std::string complaintAfter(const std::function<void()>& failure) {
    realMain = [&](int, char**) {
        failure();
        return 0;
    };
    const CapturedStream error(std::cerr);
    EXPECT_EQ(1, runMain());
    return error.str();
}

TEST(Main, LeavesNoCoreDump) {
    EXPECT_EQ(0, statusOfChild([] {
                  realMain = [](int, char**) {
                      rlimit cores{};
                      EXPECT_EQ(0, getrlimit(RLIMIT_CORE, &cores));
                      EXPECT_EQ(0U, cores.rlim_cur);
                      EXPECT_EQ(0U, cores.rlim_max);
                      EXPECT_EQ(0, prctl(PR_GET_DUMPABLE));
                      return 0;
                  };
                  EXPECT_EQ(0, runMain());
              }));
}

TEST(Main, TakesTheNumbersOfClosedStandardDescriptors) {
    for (unsigned closed = 0; closed < 8; ++closed) {
        const int status = statusOfChild([closed] {
            for (int fd = 0; fd < 3; ++fd) {
                if ((closed >> fd & 1) != 0) {
                    close(fd);
                }
            }
            realMain = [](int, char**) {
                const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
                EXPECT_GT(next, STDERR_FILENO);
                return close(next);
            };
            EXPECT_EQ(0, runMain());
        });
        EXPECT_EQ(0, status) << closed;
    }
}

TEST(Main, LetsNobodyReadOrWriteWhatStandsInForClosedDescriptors) {
    EXPECT_EQ(0, statusOfChild([] {
                  close(STDIN_FILENO);
                  close(STDOUT_FILENO);
                  realMain = [](int, char**) {
                      char byte = 'x';
                      EXPECT_EQ(-1, read(STDIN_FILENO, &byte, 1));
                      EXPECT_EQ(EBADF, errno);
                      EXPECT_EQ(-1, write(STDOUT_FILENO, &byte, 1));
                      EXPECT_EQ(EBADF, errno);
                      return 0;
                  };
                  EXPECT_EQ(0, runMain());
              }));
}

TEST(Main, EndsWith1AndAWordWhenItHasNoDescriptorLeft) {
    EXPECT_EQ(0, statusOfChild([] {
                  const CapturedStream error(std::cerr);
                  rlimit limit{};
                  EXPECT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
                  const rlimit standardOnly{STDERR_FILENO + 1, limit.rlim_max};
                  EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &standardOnly));
                  const int status = runMain();
                  EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));  // the sanitizers need some, too
                  EXPECT_EQ(1, status);
                  EXPECT_EQ("Cannot open the standard descriptors: Too many open files\n", error.str());
              }));
}

TEST(Main, LeavesNoDescriptorOpenBesideTheStandardOnes) {
    EXPECT_EQ(0, statusOfChild([] {
                  const int before = open("/dev/null", O_RDONLY | O_CLOEXEC);
                  close(before);
                  realMain = [before](int, char**) {
                      const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
                      EXPECT_EQ(before, next);
                      return close(next);
                  };
                  EXPECT_EQ(0, runMain());
              }));
}

TEST(Main, ReturnsTheStatusOfTheRunAndPassesTheCommandLineOn) {
    EXPECT_EQ(0, statusOfChild([] {
                  realMain = [](int argc, char** argv) {
                      EXPECT_EQ(1, argc);
                      EXPECT_STREQ("tallowick", argv[0]);
                      return 17;
                  };
                  EXPECT_EQ(17, runMain());
              }));
}

TEST(Main, ClosesTheLogBeforeTheProcessEnds) {
    EXPECT_EQ(0, statusOfChild([] {
                  static bool isClosed = false;
                  struct Noted : log4cpp::OstreamAppender {
                      Noted() : OstreamAppender("noted", &std::cerr) {}
                      ~Noted() override { isClosed = true; }
                  };
                  realMain = [](int, char**) {
                      log4cpp::Category::getRoot().addAppender(new Noted);
                      return 0;
                  };
                  EXPECT_EQ(0, runMain());
                  EXPECT_TRUE(isClosed);
              }));
}

TEST(Main, UnblocksEverySignal) {
    EXPECT_EQ(0, statusOfChild([] {
                  sigset_t all;
                  sigfillset(&all);
                  sigprocmask(SIG_SETMASK, &all, nullptr);
                  realMain = [](int, char**) {
                      sigset_t present;
                      sigprocmask(SIG_BLOCK, nullptr, &present);
                      for (int signal = 1; signal < SIGRTMIN; ++signal) {
                          EXPECT_EQ(0, sigismember(&present, signal)) << signal;
                      }
                      return 0;
                  };
                  runMain();
              }));
}

TEST(Main, GetsBrokenPipesAndFileSizeLimitsBackAsErrors) {
    EXPECT_EQ(0, statusOfChild([] {
                  realMain = [](int, char**) {
                      raise(SIGPIPE);
                      raise(SIGXFSZ);
                      return 0;
                  };
                  EXPECT_EQ(0, runMain());
              }));
}

TEST(Main, TellsAnErrorThatNobodyHandled) {
    EXPECT_EQ(0, statusOfChild([] {
                  const std::string complaint =
                      complaintAfter([] { throw Exc<&SomeError>("the context", "./some", 42) % "it"; });
                  EXPECT_THAT(complaint, StartsWith("Uncaught ExTraceableException: SomeError["));
                  EXPECT_THAT(complaint, EndsWith("]: some message about it [./some:42]\nthe context\n"));
              }));
}

TEST(Main, TellsTheMessageAloneWhereMemoryDoesNotSufficeForMore) {
    EXPECT_EQ(0, statusOfChild([] {
                  const std::string it(20'000, 'x');
                  const auto error = Exc<&SomeError>("the context", "./some", 42) % it;
                  std::ignore = error.what();  // from now on it is there
                  const std::exception_ptr thrown = std::make_exception_ptr(error);
                  std::optional<test::AllocationFailure> failure;
                  const std::string complaint = complaintAfter([&] {
                      failure.emplace(it.size());
                      std::rethrow_exception(thrown);
                  });
                  EXPECT_TRUE(test::AllocationFailure::happened());
                  EXPECT_EQ("Uncaught ExTraceableException: some message about " + it + "\n", complaint);
              }));
}

TEST(Main, TellsAStandardException) {
    EXPECT_EQ(0, statusOfChild([] {
                  EXPECT_EQ("Uncaught std::exception: the reason\n",
                            complaintAfter([] { throw std::runtime_error("the reason"); }));
              }));
}

TEST(Main, TellsAnythingElse) {
    EXPECT_EQ(0, statusOfChild(
                     [] { EXPECT_EQ("Uncaught unknown exception\n", complaintAfter([] { throw 42; })); }));
}

}  // namespace
}  // namespace korva
