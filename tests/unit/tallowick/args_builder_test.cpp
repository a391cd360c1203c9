// SPDX-License-Identifier: Apache-2.0
#include "tallowick/args_builder.h"

#include <gtest/gtest.h>

#include <string>

namespace korva {
namespace {

TEST(ArgsBuilder, IsTheCommandAloneWithoutWords) {
    EXPECT_EQ("perl", ArgsBuilder("perl").str());
}

TEST(ArgsBuilder, SeparatesWordsBySingleBlanks) {
    EXPECT_EQ("rm -rf dir", (ArgsBuilder("rm") << "-rf" << std::string("dir")).str());
}

TEST(ArgsBuilder, QuotesTheCommandAndEachWord) {
    EXPECT_EQ("my\\ command it\\'s \\$HOME\\;",
              (ArgsBuilder("my command") << "it's" << std::string("$HOME;")).str());
}

TEST(ArgsBuilder, WritesAnEmptyWordAsNothingBehindItsBlank) {
    EXPECT_EQ("a  b", (ArgsBuilder("a") << ""
                                        << "b")
                          .str());
}

}  // namespace
}  // namespace korva
