// SPDX-License-Identifier: Apache-2.0
#include "commons/sh_quote.h"
#include "support/files.h"
#include "support/temp_dir.h"
#include "utils/fork_exec.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <iostream>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace korva {
namespace {

using Words = std::vector<std::string>;

constexpr std::size_t kWords = 100'000;
constexpr std::size_t kWordsPerScript = 5'000;
constexpr std::size_t kLongestWord = 255;

/// A generator whose seed is printed; SH_QUOTE_SEED repeats an earlier run.
std::mt19937 seededRandom() {
    const char* const given = std::getenv("SH_QUOTE_SEED");
    const auto seed =
        given == nullptr ? std::random_device()() : static_cast<unsigned>(std::strtoul(given, nullptr, 10));
    std::cout << "SH_QUOTE_SEED=" << seed << "\n";
    return std::mt19937(seed);
}

/// Every byte but NUL is as likely as any other.
std::string randomWord(std::mt19937& random, std::size_t shortest, std::size_t longest) {
    std::string word(shortest + random() % (longest - shortest + 1), '\0');
    std::size_t filled = 0;
    while (filled < word.size()) {
        for (auto bytes = static_cast<std::uint32_t>(random()); bytes != 0 && filled < word.size();
             bytes >>= 8U) {
            if (const auto byte = static_cast<char>(bytes & 0xFFU); byte != '\0') {
                word[filled++] = byte;
            }
        }
    }
    return word;
}

/// "{" with a "," or ".." and a "}" behind it: what bash may take for a brace expansion.
bool holdsBraceExpression(std::string_view word) {
    const std::size_t open = word.find('{');
    if (open == std::string_view::npos) {
        return false;
    }
    const std::string_view behind = word.substr(open);
    const std::size_t middle = std::min(behind.find(','), behind.find(".."));
    return middle != std::string_view::npos && behind.find('}', middle) != std::string_view::npos;
}

/// A shell script that tells what words become, each quoted.
class Script {
  public:
    explicit Script(const Words& words) {
        std::string text = "printf '%s\\0'";
        for (const std::string& word : words) {
            text += ' ';
            text += sh_quote(word);
        }
        test::writeFile(directory_ / "script", text + "\n");
    }

    /// What `shell` makes of the words, with a NUL behind each.
    std::string run(const std::string& shell) const {
        ArgList args;
        args << shell << directory_ / "script";
        std::string output;
        std::string error;
        EXPECT_EQ(0, forkExecvGetOutErr(output, error, shell, args)) << error;
        return output;
    }

  private:
    test::TempDir directory_;
};

std::string joined(const Words& words) {
    std::string result;
    for (const std::string& word : words) {
        result += word;
        result += '\0';
    }
    return result;
}

// Not EXPECT_EQ: half a megabyte of noise tells less than the seed.
void expectBackAsTheyWere(const Words& words, std::initializer_list<const char*> shells) {
    const Script script(words);
    for (const char* const shell : shells) {
        EXPECT_TRUE(joined(words) == script.run(shell)) << shell;
    }
}

TEST(ShQuoteProperty, DashAndBashGiveRandomWordsBackAsTheyWere) {
    std::mt19937 random = seededRandom();
    for (std::size_t done = 0; done < kWords && !HasFailure(); done += kWordsPerScript) {
        Words words;
        while (words.size() < kWordsPerScript) {
            std::string word = randomWord(random, 1, kLongestWord);
            if (!holdsBraceExpression(word)) {
                words.push_back(std::move(word));
            }
        }
        expectBackAsTheyWere(words, {"dash", "bash"});
    }
}

/// Random, without the bytes of which brace expressions are made.
std::string wordWithoutBraces(std::mt19937& random) {
    std::string word = randomWord(random, 0, 20);
    for (char& c : word) {
        c = std::string_view("{},.").find(c) == std::string_view::npos ? c : '_';
    }
    return word;
}

TEST(ShQuoteProperty, BraceExpressionsAreExpandedByBashAlone) {
    std::mt19937 random = seededRandom();
    Words words;
    Words expanded;
    const auto expand = [&expanded](const std::string& word) {
        if (!word.empty()) {  // bash drops empty words
            expanded.push_back(word);
        }
    };
    for (int i = 0; i < 2'000; ++i) {
        const std::string before = wordWithoutBraces(random);
        const std::string one = wordWithoutBraces(random);
        const std::string two = wordWithoutBraces(random);
        const std::string after = wordWithoutBraces(random);
        words.push_back(before + "{" + one + "," + two + "}" + after);
        expand(before + one + after);
        expand(before + two + after);
        words.push_back(before + "{1..3}" + after);
        for (const char* const number : {"1", "2", "3"}) {
            expand(before + number + after);
        }
    }
    const Script script(words);
    EXPECT_TRUE(joined(words) == script.run("dash"));
    EXPECT_TRUE(joined(expanded) == script.run("bash"));
}

TEST(ShQuoteProperty, BracesWithoutACommaOrARangeStayInBash) {
    std::mt19937 random = seededRandom();
    Words words = {"{", "}", "{}", "a{b}c", "{a", "a,b}", "}{", "{,", "..}", "{..", "{a.b}"};
    for (int i = 0; i < 2'000; ++i) {
        words.push_back(wordWithoutBraces(random) + "{" + wordWithoutBraces(random) + "}" +
                        wordWithoutBraces(random));
    }
    expectBackAsTheyWere(words, {"bash"});
}

}  // namespace
}  // namespace korva
