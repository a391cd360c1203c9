// SPDX-License-Identifier: Apache-2.0
#include "agent_check/one_line.h"

#include <gtest/gtest.h>

#include <string>

namespace korva::agent_check {
namespace {

TEST(OneLine, LeavesPlainTextAsItIs) {
    EXPECT_EQ("Größe: 5 €", oneLine("Größe: 5 €"));
}

TEST(OneLine, DropsWhiteSpaceAround) {
    EXPECT_EQ("a b", oneLine(" \r\n\ta b\n\n"));
    EXPECT_EQ("", oneLine(" \n"));
}

TEST(OneLine, MarksLineEndsWithin) {
    EXPECT_EQ("one / two", oneLine("one\ntwo"));
}

TEST(OneLine, EscapesControlCharactersOfOneAndOfTwoBytes) {
    EXPECT_EQ("\\x1b[2J\\x7f\\x9b\\x00.", oneLine(std::string("\x1b[2J\x7f\xc2\x9b\0.", 9)));
    EXPECT_EQ("\u00a0a", oneLine("\u00a0a"));
}

TEST(OneLine, ReplacesWhatIsNotUtf8) {
    EXPECT_EQ("a\ufffdb", oneLine("a\xff"
                                  "b"));
}

TEST(OneLine, CutsBetweenCharacters) {
    std::string text(299, 'x');
    EXPECT_EQ(text + " …", oneLine(text + "€uro"));
    text += 'x';
    EXPECT_EQ(text, oneLine(text));
}

}  // namespace
}  // namespace korva::agent_check
