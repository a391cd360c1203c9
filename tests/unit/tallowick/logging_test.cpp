// SPDX-License-Identifier: Apache-2.0
#include "tallowick/logging.h"

#include "commons/session.h"
#include "commons/system_error.h"
#include "support/captured_stream.h"
#include "support/child_process.h"
#include "support/files.h"
#include "support/product_dir.h"
#include "support/temp_dir.h"
#include "support/utility_log_capture.h"
#include "tallowick/lifetime.h"
#include "utils/log_hook.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <log4cpp/Category.hh>

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>

namespace korva {
namespace {

using test::CapturedStream;
using test::productDir;
using test::readFile;
using test::statusOfChild;
using test::TempDir;
using test::writeFile;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

// log4cpp is configured once in a process, so each test has one of its own.
class Logging : public testing::Test {
  protected:
    Logging() {
        writeFile(propertiesName(), readFile(DEFAULT_LOG_PROPERTIES));
        const test::UtilityLogCapture earlierMessages;  // which would open the log
    }

    static std::string propertiesName() { return productDir() + "/log4cpp.properties"; }
    static void logSomething() { log4cpp::Category::getInstance("k.some").debug("some message"); }
    std::string logName() const { return dir / "session/migration.log"; }
    std::string log() const { return readFile(logName()); }

    TempDir dir;
    SessionLifetimeController session{dir / "session"};
};

TEST_F(Logging, GoesToTheSessionsFileWithDateLevelAndCategory) {
    EXPECT_EQ(0, statusOfChild([this] {
                  initializeLog4Cpp(false);
                  logSomething();
                  EXPECT_THAT(log(), MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} "
                                                  "[0-9]{2}:[0-9]{2}:[0-9]{2},[0-9]{3} "
                                                  "DEBUG k\\.some: some message\n"));
              }));
}

TEST_F(Logging, LeavesTheConsoleAloneWithoutVerbose) {
    EXPECT_EQ(0, statusOfChild([] {
                  const CapturedStream error(std::cerr);
                  const CapturedStream output(std::cout);
                  initializeLog4Cpp(false);
                  logSomething();
                  EXPECT_EQ("", error.str());
                  EXPECT_EQ("", output.str());
              }));
}

TEST_F(Logging, GoesToStandardErrorAsWellWithVerbose) {
    EXPECT_EQ(0, statusOfChild([this] {
                  const CapturedStream error(std::cerr);
                  const CapturedStream output(std::cout);
                  initializeLog4Cpp(true);
                  logSomething();
                  EXPECT_EQ("DEBUG k.some: some message\n", error.str());
                  EXPECT_EQ("", output.str());
                  EXPECT_THAT(log(), HasSubstr("some message"));
              }));
}

TEST_F(Logging, IsConfiguredOnceAndOnlyLearnsANewFileName) {
    EXPECT_EQ(0, statusOfChild([this] {
                  initializeLog4Cpp(false);
                  std::filesystem::remove(propertiesName());
                  delete theSession;
                  theSession = new SessionFiles(dir / "second");
                  EXPECT_NO_THROW(initializeLog4Cpp(false));
                  EXPECT_EQ(dir / "second/migration.log", std::getenv("LOG_FILE_NAME"));
                  logSomething();
                  EXPECT_THAT(log(), HasSubstr("some message"));
              }));
}

TEST_F(Logging, FailsWithoutItsConfiguration) {
    std::filesystem::remove(propertiesName());
    EXPECT_EQ(0, statusOfChild([] {
                  try {
                      initializeLog4Cpp(false);
                      FAIL() << "no error";
                  } catch (const std::runtime_error& error) {
                      EXPECT_THAT(error.what(), HasSubstr(propertiesName()));
                  }
              }));
}

TEST_F(Logging, FailsWithABrokenConfiguration) {
    for (const char* content : {"", "log4cpp.rootCategory=DEBUG, A1\n", "nonsense"}) {
        writeFile(propertiesName(), content);
        EXPECT_EQ(0, statusOfChild([] { EXPECT_THROW(initializeLog4Cpp(false), std::runtime_error); }));
    }
}

TEST_F(Logging, GoesThroughNoLinkThatStandsInPlaceOfTheFile) {
    writeFile(dir / "target", "old");
    std::filesystem::create_symlink(dir / "target", logName());
    EXPECT_EQ(0, statusOfChild([this] {
                  try {
                      initializeLog4Cpp(false);
                      FAIL() << "no error";
                  } catch (const SystemError& error) {
                      EXPECT_EQ("Cannot write to " + logName() + ": Too many levels of symbolic links",
                                error.what());
                  }
                  logSomething();
              }));
    EXPECT_EQ("old", readFile(dir / "target"));
    EXPECT_TRUE(std::filesystem::is_symlink(logName()));
}

TEST_F(Logging, CreatesNothingThroughALinkThatLeadsNowhere) {
    std::filesystem::create_symlink(dir / "target", logName());
    EXPECT_EQ(0, statusOfChild([] { EXPECT_THROW(initializeLog4Cpp(false), SystemError); }));
    EXPECT_FALSE(std::filesystem::exists(dir / "target"));
}

TEST_F(Logging, WaitsForNobodyAtAFifoThatStandsInPlaceOfTheFile) {
    ASSERT_EQ(0, ::mkfifo(logName().c_str(), 0600));
    EXPECT_EQ(0, statusOfChild([] { EXPECT_THROW(initializeLog4Cpp(false), SystemError); }));
    EXPECT_TRUE(std::filesystem::is_fifo(logName()));
}

TEST_F(Logging, AppendsToTheFileOfAnEarlierRun) {
    writeFile(logName(), "earlier\n");
    EXPECT_EQ(0, statusOfChild([this] {
                  initializeLog4Cpp(false);
                  logSomething();
                  EXPECT_THAT(log(), MatchesRegex("earlier\n.*some message\n"));
              }));
}

TEST_F(Logging, DoesWithoutAConsoleInItsConfiguration) {
    writeFile(propertiesName(),
              "log4cpp.rootCategory=DEBUG, A1\n"
              "log4cpp.appender.A1=FileAppender\n"
              "log4cpp.appender.A1.fileName=${LOG_FILE_NAME}\n"
              "log4cpp.appender.A1.layout=BasicLayout\n");
    EXPECT_EQ(0, statusOfChild([this] {
                  initializeLog4Cpp(false);
                  logSomething();
                  EXPECT_THAT(log(), HasSubstr("some message"));
              }));
}

TEST_F(Logging, TakesTheMessagesOfTheProcessUtilities) {
    EXPECT_EQ(0, statusOfChild([this] {
                  initializeLog4Cpp(false);
                  logUtility("Unable to find %s", std::string("something"));
                  EXPECT_THAT(log(), HasSubstr("WARN k.utils: Unable to find something\n"));
              }));
}

TEST_F(Logging, HasADebugLogForTheLifetimeOfItsController) {
    EXPECT_EQ(0, statusOfChild([this] {
                  const CapturedStream error(std::cerr);
                  {
                      const DebugLogLifetimeController controller(false, true);
                      ASSERT_NE(nullptr, theDebugLog);
                      EXPECT_TRUE(theDebugLog->isVerboseMode());
                      EXPECT_FALSE(theDebugLog->isDebugMode());
                      theDebugLog->log(std::string("for support"));
                  }
                  EXPECT_EQ(nullptr, theDebugLog);
                  EXPECT_THAT(log(), HasSubstr("INFO k.log: for support\n"));
              }));
}

TEST_F(Logging, IsInDebugModeOnlyWhenItIsNotVerbose) {
    EXPECT_EQ(0, statusOfChild([] {
                  {
                      const DebugLogLifetimeController controller(true, false);
                      EXPECT_TRUE(theDebugLog->isDebugMode());
                  }
                  const DebugLogLifetimeController controller(true, true);
                  EXPECT_FALSE(theDebugLog->isDebugMode());
              }));
}

}  // namespace
}  // namespace korva
