// SPDX-License-Identifier: Apache-2.0
#include "watch/terminal_text.h"

#include <gtest/gtest.h>

#include <clocale>
#include <string>

namespace korva {
namespace {

class TerminalText : public testing::Test {
  protected:
    void SetUp() override { ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr); }
    void TearDown() override { std::setlocale(LC_CTYPE, "C"); }

    static std::string shown(const std::string& bytes) { return toTerminalText(bytes, Charset::kUnicode); }
};

TEST_F(TerminalText, LeavesPlainTextAlone) {
    EXPECT_EQ(shown("clients/a & b.tgz"), "clients/a & b.tgz");
    EXPECT_EQ(shown("ünïcödé 名前 שלום"), "ünïcödé 名前 שלום");
}

TEST_F(TerminalText, ControlCharactersBecomeVisible) {
    EXPECT_EQ(shown("\x1B[31mred\x07\x7F"), "\uFFFD[31mred\uFFFD\uFFFD");
    EXPECT_EQ(shown("\u0085\u009B2J"), "\uFFFD\uFFFD2J");
    EXPECT_EQ(shown(std::string("a\0b", 3)), "a\uFFFDb");
}

TEST_F(TerminalText, CharactersThatTurnOrHideTextBecomeVisible) {
    for (const char* const each :
         {"\u00AD", "\u061C", "\u200B", "\u200E", "\u200F", "\u202A", "\u202E", "\u2066", "\u2069", "\u2028",
          "\u2029", "\uFEFF", "\uFE0F", "\U000E0041", "\U000E0100"}) {
        EXPECT_EQ(shown(std::string("a") + each + "b"), "a\uFFFDb");
    }
}

TEST_F(TerminalText, LineEndsAndTabsBecomeBlanks) {
    EXPECT_EQ(shown("new\nline\ttab\rreturn"), "new line tab return");
}

TEST_F(TerminalText, BytesThatAreNoUtf8BecomeOneSignEach) {
    EXPECT_EQ(shown("caf\xE9s"), "caf\uFFFDs");
    EXPECT_EQ(shown("half \xE5\x90"), "half \uFFFD\uFFFD");
}

TEST_F(TerminalText, MarksDoNotPileUp) {
    const std::string mark = "\u0301";
    EXPECT_EQ(shown("e" + mark + mark + mark + mark + "x"), "e" + mark + mark + "x");
    EXPECT_EQ(shown(mark + "x"), "x");
}

TEST_F(TerminalText, OnlyAsciiIsShownWhereThereIsNoMore) {
    EXPECT_EQ(toTerminalText("na\xC3\xAFve \x1B[0m", Charset::kAscii), "na?ve ?[0m");
}

TEST_F(TerminalText, IsTheSameWhenCleanedTwice) {
    const std::string once = shown("a\x1B\u202E\u0301\xFF");
    EXPECT_EQ(shown(once), once);
}

TEST_F(TerminalText, WideCharactersTakeTwoColumnsAndMarksNone) {
    EXPECT_EQ(columnsOf("abc"), 3);
    EXPECT_EQ(columnsOf("名前"), 4);
    EXPECT_EQ(columnsOf("e\u0301"), 1);
}

TEST_F(TerminalText, ClippingTellsThatSomethingIsMissing) {
    EXPECT_EQ(clipEnd("abcdef", 6, Charset::kUnicode), "abcdef");
    EXPECT_EQ(clipEnd("abcdef", 5, Charset::kUnicode), "abcd\u2026");
    EXPECT_EQ(clipEnd("abcdef", 5, Charset::kAscii), "ab...");
    EXPECT_EQ(clipStart("abcdef", 5, Charset::kUnicode), "\u2026cdef");
    EXPECT_EQ(clipStart("abcdef", 5, Charset::kAscii), "...ef");
}

TEST_F(TerminalText, ClippingNeverTakesMoreThanItMay) {
    for (int columns = 0; columns < 12; ++columns) {
        for (const Charset charset : {Charset::kAscii, Charset::kUnicode}) {
            EXPECT_LE(columnsOf(clipEnd("名前e\u0301 名前 x", columns, charset)), columns);
            EXPECT_LE(columnsOf(clipStart("名前e\u0301 名前 x", columns, charset)), columns);
        }
    }
}

TEST_F(TerminalText, LinesAreBrokenAtBlanks) {
    EXPECT_EQ(wrap("one two  three", 7), (std::vector<std::string>{"one two", "three"}));
    EXPECT_EQ(wrap("one two three", 8), (std::vector<std::string>{"one two", "three"}));
    EXPECT_EQ(wrap("", 8), (std::vector<std::string>{""}));
    EXPECT_EQ(wrap("   ", 8), (std::vector<std::string>{""}));
}

TEST_F(TerminalText, LongWordsAreBrokenAnywhere) {
    EXPECT_EQ(wrap("a bcdefgh", 4), (std::vector<std::string>{"a", "bcde", "fgh"}));
    EXPECT_EQ(wrap("名前", 1), (std::vector<std::string>{"名", "前"}));
}

}  // namespace
}  // namespace korva
