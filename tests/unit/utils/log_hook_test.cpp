// SPDX-License-Identifier: Apache-2.0
#include "utils/log_hook.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace korva {
namespace {

using testing::ElementsAre;

class LogHook : public testing::Test {
  protected:
    LogHook() {
        collect();  // and with that forget what other tests logged
        messages.clear();
        setUtilityLogSink({});
    }
    ~LogHook() override { setUtilityLogSink({}); }

    void collect() {
        setUtilityLogSink([this](const std::string& message) { messages.push_back(message); });
    }

    std::vector<std::string> messages;
};

TEST_F(LogHook, HandsMessagesOverAsTheyAre) {
    collect();
    logUtilityMessage("with newline\n");
    logUtility("%s and %s, 100%%", "one", 2);
    EXPECT_THAT(messages, ElementsAre("with newline\n", "one and 2, 100%"));
}

TEST_F(LogHook, KeepsEarlyMessagesForTheFirstSink) {
    logUtilityMessage("early");
    logUtilityMessage("later");
    collect();
    EXPECT_THAT(messages, ElementsAre("early", "later"));
    collect();
    EXPECT_THAT(messages, ElementsAre("early", "later"));
}

TEST_F(LogHook, KeepsNoMoreThanTheFirstHundred) {
    for (int i = 0; i < 1000; ++i) {
        logUtilityMessage(std::to_string(i));
    }
    collect();
    ASSERT_EQ(100U, messages.size());
    EXPECT_EQ("0", messages.front());
    EXPECT_EQ("99", messages.back());
}

TEST_F(LogHook, PrintsNothingByItself) {
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    logUtilityMessage("quiet");
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

TEST_F(LogHook, SurvivesASinkThatThrows) {
    setUtilityLogSink([](const std::string&) { throw std::runtime_error("sink"); });
    logUtilityMessage("lost");
    collect();
    logUtilityMessage("told");
    EXPECT_THAT(messages, ElementsAre("told"));
}

}  // namespace
}  // namespace korva
