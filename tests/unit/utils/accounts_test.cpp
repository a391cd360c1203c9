// SPDX-License-Identifier: Apache-2.0
#include "utils/accounts.h"

#include "support/utility_log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <pwd.h>

#include <string>

namespace korva {
namespace {

using test::UtilityLogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string kUnknown = "no-such-account";

TEST(GetUserId, FindsAnAccount) {
    const UtilityLogCapture log;
    EXPECT_EQ(::getpwnam("daemon")->pw_uid, get_user_id("daemon"));
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(GetUserId, LogsAnUnknownAccountAndGivesZero) {
    const UtilityLogCapture log;
    EXPECT_EQ(0U, get_user_id(kUnknown));
    EXPECT_THAT(log.messages(),
                ElementsAre("Unable to find uid for user no-such-account: No such file or directory"));
}

TEST(KorvaUgid, GivesUserAndGroup) {
    gid_t gid = 12345;
    EXPECT_EQ(::getpwnam("nobody")->pw_uid, korva_ugid("nobody", &gid));
    EXPECT_EQ(::getpwnam("nobody")->pw_gid, gid);
}

TEST(KorvaUgid, AcceptsANullGroup) {
    EXPECT_EQ(::getpwnam("daemon")->pw_uid, korva_ugid("daemon", nullptr));
}

TEST(KorvaUgid, GivesZeroForAnUnknownAccount) {
    gid_t gid = 12345;
    EXPECT_EQ(0U, korva_ugid(kUnknown, &gid));
    EXPECT_EQ(0U, gid);
    EXPECT_EQ(0U, korva_ugid(kUnknown, nullptr));
}

TEST(PSetuid, FailsForAnUnknownAccount) {
    errno = 0;
    EXPECT_NE(0, p_setuid(kUnknown));
    EXPECT_EQ(ENOENT, errno);
}

}  // namespace
}  // namespace korva
