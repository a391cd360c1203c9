// SPDX-License-Identifier: Apache-2.0
#include "commons/arg_list.h"

#include <gtest/gtest.h>

#include <string>

namespace korva {
namespace {

TEST(ArgList, EndsWithANullPointerFromTheStart) {
    const ArgList args;
    ASSERT_NE(nullptr, args.argv());
    EXPECT_EQ(nullptr, args.argv()[0]);
}

TEST(ArgList, KeepsCopiesAndANullPointerBehindThem) {
    ArgList args;
    std::string word = "first";
    args << word << "second";
    word = "other";
    EXPECT_STREQ("first", args.argv()[0]);
    EXPECT_STREQ("second", args.argv()[1]);
    EXPECT_EQ(nullptr, args.argv()[2]);
}

TEST(ArgList, TakesAnyNumberOfArguments) {
    ArgList args;
    for (int i = 0; i < 10000; ++i) {
        args << std::to_string(i);
    }
    EXPECT_STREQ("9999", args.argv()[9999]);
    EXPECT_EQ(nullptr, args.argv()[10000]);
}

TEST(ArgListRepresentation, IsEmptyForAnEmptyList) {
    EXPECT_EQ("", ArgList().getStringRepresentation());
}

TEST(ArgListRepresentation, QuotesEachArgument) {
    ArgList args;
    args << "ls"
         << "-l"
         << "a b"
         << "it's";
    EXPECT_EQ(R"(ls -l a\ b it\'s)", args.getStringRepresentation());
}

TEST(ArgListRepresentation, ShowsAnEmptyArgumentAsTwoQuotes) {
    ArgList args;
    args << ""
         << "x"
         << "";
    EXPECT_EQ("'' x ''", args.getStringRepresentation());
}

}  // namespace
}  // namespace korva
