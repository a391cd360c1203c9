// SPDX-License-Identifier: Apache-2.0
#include "commons/uuid.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <string>

namespace korva {
namespace {

TEST(NewUUID, Has37CharactersTheLastOneNul) {
    const std::string uuid = newUUID();
    ASSERT_EQ(37U, uuid.size());
    EXPECT_EQ('\0', uuid[36]);
}

TEST(NewUUID, HasItsVersionAtPosition15AndItsVariantAtPosition20) {
    for (int i = 0; i < 1000; ++i) {
        const std::string uuid = newUUID();
        ASSERT_EQ('4', uuid[14]) << uuid;
        ASSERT_EQ('8', uuid[19]) << uuid;
    }
}

TEST(NewUUID, IsMadeOfLowerCaseHexDigitsAndDashes) {
    const std::string uuid = newUUID();
    for (const std::size_t i : {8U, 13U, 18U, 23U}) {
        EXPECT_EQ('-', uuid[i]);
    }
    EXPECT_EQ(std::string::npos, uuid.substr(0, 36).find_first_not_of("0123456789abcdef-")) << uuid;
}

TEST(NewUUID, UsesAllDigits) {
    std::set<char> seen;
    for (int i = 0; i < 1000; ++i) {
        const std::string uuid = newUUID();
        seen.insert(uuid.begin(), uuid.begin() + 8);
    }
    EXPECT_EQ(16U, seen.size());
}

TEST(NewUUID, FollowsTheSeedOfRand) {
    std::srand(7);
    const std::string first = newUUID();
    EXPECT_NE(first, newUUID());
    std::srand(7);
    EXPECT_EQ(first, newUUID());
}

}  // namespace
}  // namespace korva
