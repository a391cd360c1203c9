// SPDX-License-Identifier: Apache-2.0
#include "commons/xml_text.h"

#include <gtest/gtest.h>

#include <string>

namespace korva {
namespace {

const std::string kReplacement = "\xEF\xBF\xBD";

TEST(XmlText, KeepsValidText) {
    const std::string text = "tab\t newline\n return\r \xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80 <&>";
    EXPECT_EQ(text, toXmlText(text));
    EXPECT_EQ("", toXmlText(""));
}

TEST(XmlText, ReplacesNulAndControlCharacters) {
    EXPECT_EQ("a" + kReplacement + "b", toXmlText(std::string("a\0b", 3)));
    for (char c = 1; c < 0x20; ++c) {
        const bool allowed = c == '\t' || c == '\n' || c == '\r';
        EXPECT_EQ(allowed ? std::string(1, c) : kReplacement, toXmlText(std::string(1, c))) << int{c};
    }
    EXPECT_EQ("\x7F", toXmlText("\x7F"));
}

TEST(XmlText, ReplacesEachByteThatIsNotUtf8) {
    EXPECT_EQ("a" + kReplacement + kReplacement + "b", toXmlText("a\xFF\xFE"
                                                                 "b"));
    EXPECT_EQ("caf" + kReplacement + " x", toXmlText("caf\xE9 x"));
}

TEST(XmlText, ReplacesASequenceThatIsCutOff) {
    EXPECT_EQ("a" + kReplacement, toXmlText("a\xC3"));
    EXPECT_EQ(kReplacement + kReplacement, toXmlText("\xE2\x82"));
    EXPECT_EQ(kReplacement + kReplacement + kReplacement, toXmlText("\xF0\x9F\x98"));
}

TEST(XmlText, KeepsGoodCharactersBehindABadByte) {
    EXPECT_EQ(kReplacement + "\xC3\xA4", toXmlText("\xE2\xC3\xA4"));
}

TEST(XmlText, ReplacesOverlongForms) {
    EXPECT_EQ(kReplacement + kReplacement, toXmlText("\xC0\xAF"));
    EXPECT_EQ(kReplacement + kReplacement, toXmlText("\xC0\x80"));
}

TEST(XmlText, ReplacesSurrogates) {
    EXPECT_EQ(kReplacement + kReplacement + kReplacement, toXmlText("\xED\xA0\x80"));
}

TEST(XmlText, ReplacesCharactersThatXmlDoesNotKnow) {
    EXPECT_EQ(kReplacement, toXmlText("\xEF\xBF\xBE"));
    EXPECT_EQ(kReplacement, toXmlText("\xEF\xBF\xBF"));
    EXPECT_EQ("\xEF\xBF\xBD", toXmlText("\xEF\xBF\xBD"));
    EXPECT_EQ("\xF4\x8F\xBF\xBF", toXmlText("\xF4\x8F\xBF\xBF"));
    EXPECT_EQ(kReplacement + kReplacement + kReplacement + kReplacement, toXmlText("\xF4\x90\x80\x80"));
}

}  // namespace
}  // namespace korva
