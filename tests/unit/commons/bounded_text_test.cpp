// SPDX-License-Identifier: Apache-2.0
#include "commons/bounded_text.h"

#include <gtest/gtest.h>

#include <string>

namespace korva {
namespace {

constexpr std::size_t kEnd = BoundedText::kEndSize;

TEST(BoundedText, KeepsAShortText) {
    BoundedText text;
    text << "oh "
         << "dear" << '\n';
    text.put('!');
    EXPECT_EQ("oh dear\n!", text.str());
}

TEST(BoundedText, KeepsATextOfTwiceTheSizeOfAnEnd) {
    const std::string whole = std::string(kEnd, 'a') + std::string(kEnd, 'b');
    BoundedText text;
    text << whole;
    EXPECT_EQ(whole, text.str());
}

TEST(BoundedText, LeavesOutTheMiddleOfALongerTextHoweverItComes) {
    const std::string whole = std::string(kEnd, 'a') + "middle" + std::string(kEnd, 'b');
    const std::string expected = std::string(kEnd, 'a') + "\n[6 bytes left out]\n" + std::string(kEnd, 'b');
    for (const std::size_t piece : {std::size_t{1}, std::size_t{1000}, kEnd, whole.size()}) {
        BoundedText text;
        for (std::size_t at = 0; at < whole.size(); at += piece) {
            text << whole.substr(at, piece);
        }
        EXPECT_EQ(expected, text.str()) << piece;
    }
}

TEST(BoundedText, TakesAnyAmountWithoutGrowing) {
    const std::string piece(kEnd, 'x');
    BoundedText text;
    text << "first";
    for (int i = 0; i < 1000; ++i) {
        text << piece;
    }
    text << "last";
    const std::string result = text.str();
    EXPECT_TRUE(text);
    EXPECT_TRUE(result.starts_with("first"));
    EXPECT_TRUE(result.ends_with("last"));
    EXPECT_NE(std::string::npos, result.find("\n[" + std::to_string(998 * kEnd + 9) + " bytes left out]\n"));
}

TEST(LimitedText, TakesATextUpToItsLimit) {
    LimitedText text(6);
    text << "oh" << ' ' << "dea";
    EXPECT_TRUE(text);
    EXPECT_FALSE(text.exceeded());
    EXPECT_EQ("oh dea", text.str());
}

TEST(LimitedText, FailsBeyondItsLimitForGood) {
    LimitedText text(6);
    text << "oh dear";
    EXPECT_FALSE(text);
    EXPECT_TRUE(text.exceeded());
    text.clear();
    text << "x";
    EXPECT_FALSE(text);
    EXPECT_EQ("", text.str());
}

TEST(LimitedText, FailsAtAByteToo) {
    LimitedText text(0);
    text.put('x');
    EXPECT_FALSE(text);
    EXPECT_TRUE(text.exceeded());
}

}  // namespace
}  // namespace korva
