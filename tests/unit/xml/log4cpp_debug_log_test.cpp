// SPDX-License-Identifier: Apache-2.0
#include "xml/log4cpp_debug_log.h"

#include "example_errors.h"
#include "support/captured_log.h"
#include "xml/text_msg_formatter.h"

#include <boost/format.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korva {
namespace {

using test::CapturedLog;
using test::LogRecord;
using testing::ElementsAre;

LogRecord infoRecord(const std::string& message) {
    return {"k.log", log4cpp::Priority::INFO, message};
}

class DebugLogOfLog4cpp : public testing::Test {
  protected:
    CapturedLog captured;
    Log4cppDebugLog debugLog{false, false};
};

TEST_F(DebugLogOfLog4cpp, WritesToItsCategoryAtInfo) {
    debugLog.log("text");
    EXPECT_THAT(captured.records(), ElementsAre(infoRecord("text")));
}

TEST_F(DebugLogOfLog4cpp, KeepsBytesAsTheyAre) {
    const std::string bytes("a\0b\xFF\n%s%n%1%\r", 13);
    debugLog.log(bytes);
    EXPECT_THAT(captured.records(), ElementsAre(infoRecord(bytes)));
}

TEST_F(DebugLogOfLog4cpp, WritesTheResultOfAFormat) {
    debugLog.log(boost::format("%1% %2% -> (%3% daemon)") % "Tallowick" % 1 % 2);
    EXPECT_THAT(captured.records(), ElementsAre(infoRecord("Tallowick 1 -> (2 daemon)")));
}

TEST_F(DebugLogOfLog4cpp, WritesThePlainTextReportOfAnError) {
    const auto error = test::outerError();
    debugLog.log(error);
    EXPECT_THAT(captured.records(), ElementsAre(infoRecord(formatPlainTextMessage(error))));
}

TEST_F(DebugLogOfLog4cpp, TellsItsModes) {
    EXPECT_FALSE(debugLog.isDebugMode());
    EXPECT_FALSE(debugLog.isVerboseMode());
    EXPECT_TRUE(Log4cppDebugLog(true, false).isDebugMode());
    EXPECT_FALSE(Log4cppDebugLog(true, false).isVerboseMode());
    EXPECT_TRUE(Log4cppDebugLog(false, true).isVerboseMode());
}

}  // namespace
}  // namespace korva
