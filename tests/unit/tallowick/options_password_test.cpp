// SPDX-License-Identifier: Apache-2.0
#include "support/child_process.h"
#include "tallowick/options.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace korva {
namespace {

using test::statusOfChild;

// The password is taken once in the life of a process, so each test has one of its own.
config parseCommandLine() {
    char name[] = "tallowick";
    char option[] = "--send-scout";
    char* argv[] = {name, option, nullptr};
    config cfg;
    EXPECT_TRUE(parse_options(2, argv, &cfg));
    return cfg;
}

TEST(ParseOptions, TakesThePasswordOutOfTheEnvironmentSoThatNoChildSeesIt) {
    EXPECT_EQ(0, statusOfChild([] {
                  ::setenv("OVN_PASSWORD", "login word", 1);
                  EXPECT_EQ("login word", parseCommandLine().password);
                  EXPECT_EQ(nullptr, std::getenv("OVN_PASSWORD"));
              }));
}

TEST(ParseOptions, HasAnEmptyPasswordWithoutTheVariable) {
    EXPECT_EQ(0, statusOfChild([] {
                  ::unsetenv("OVN_PASSWORD");
                  EXPECT_EQ("", parseCommandLine().password);
              }));
}

}  // namespace
}  // namespace korva
