// SPDX-License-Identifier: Apache-2.0
#include "commons/sh_quote.h"

#include "support/files.h"
#include "support/temp_dir.h"
#include "utils/fork_exec.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace korva {
namespace {

TEST(ShQuote, PutsABackslashInFrontOfSpecialBytes) {
    for (const char c : std::string("\t \"#$&'()*;<>?[\\`|~")) {
        EXPECT_EQ(std::string("\\") + c, sh_quote(std::string(1, c)));
    }
}

TEST(ShQuote, EnclosesANewlineInSingleQuotes) {
    EXPECT_EQ("a'\n'b", sh_quote("a\nb"));
}

TEST(ShQuote, LeavesAllOtherBytesAsTheyAre) {
    const std::string special = "\t\n \"#$&'()*;<>?[\\`|~";
    for (int value = 0; value < 256; ++value) {
        const char c = static_cast<char>(value);
        if (special.find(c) == std::string::npos) {
            EXPECT_EQ(std::string(1, c), sh_quote(std::string(1, c))) << value;
        }
    }
}

TEST(ShQuote, GivesAnEmptyTextForAnEmptyWord) {
    EXPECT_EQ("", sh_quote(""));
}

TEST(ShQuote, QuotesTheExampleOfABlank) {
    EXPECT_EQ("a\\ b", sh_quote("a b"));
}

std::vector<std::string> randomWords(int count) {
    std::mt19937 random(20240607);  // NOLINT(cert-msc51-cpp): the same words in each run
    std::uniform_int_distribution<int> byte(1, 255);
    std::uniform_int_distribution<std::size_t> length(1, 40);
    std::vector<std::string> words;
    for (int i = 0; i < count; ++i) {
        std::string word(length(random), '\0');
        for (char& c : word) {
            c = static_cast<char>(byte(random));
        }
        words.push_back(word);
    }
    return words;
}

TEST(ShQuote, GivesWordsThatTheShellReturnsByteForByte) {
    std::vector<std::string> words = randomWords(5000);
    for (int value = 1; value < 256; ++value) {
        words.emplace_back(1, static_cast<char>(value));
    }
    std::string script;
    std::string expected;
    for (const std::string& word : words) {
        script += "printf '%s\\0' " + sh_quote(word) + "\n";
        expected += word + '\0';
    }
    const test::TempDir directory;
    test::writeFile(directory / "script", script);
    ArgList args;
    args << "sh" << directory / "script";
    std::string output;
    std::string error;
    ASSERT_EQ(0, forkExecvGetOutErr(output, error, "sh", args)) << error;
    EXPECT_TRUE(expected == output) << error;
}

}  // namespace
}  // namespace korva
