// SPDX-License-Identifier: Apache-2.0
#include "utils/env_password.h"

#include "commons/arg_list.h"
#include "support/child_process.h"
#include "support/scoped_env.h"
#include "utils/fork_exec.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

namespace korva {
namespace {

using test::ScopedEnv;
using test::statusOfChild;
using testing::HasSubstr;
using testing::Not;

TEST(EnvPassword, IsTakenOutOfTheEnvironment) {
    EXPECT_EQ(0, statusOfChild([] {
                  ::setenv("OVN_PASSWORD", "secret word", 1);
                  EXPECT_STREQ("secret word", get_env_noncrypted_password());
                  EXPECT_EQ(nullptr, std::getenv("OVN_PASSWORD"));
              }));
}

TEST(EnvPassword, StaysAsItWasOnTheFirstCall) {
    EXPECT_EQ(0, statusOfChild([] {
                  ::setenv("OVN_PASSWORD", "first", 1);
                  const char* buffer = get_env_noncrypted_password();
                  ::setenv("OVN_PASSWORD", "second", 1);
                  EXPECT_EQ(buffer, get_env_noncrypted_password());
                  EXPECT_STREQ("first", buffer);
                  EXPECT_STREQ("second", std::getenv("OVN_PASSWORD"));
              }));
}

TEST(EnvPassword, IsEmptyWithoutTheVariableAndStaysEmpty) {
    EXPECT_EQ(0, statusOfChild([] {
                  ::unsetenv("OVN_PASSWORD");
                  EXPECT_STREQ("", get_env_noncrypted_password());
                  ::setenv("OVN_PASSWORD", "late", 1);
                  EXPECT_STREQ("", get_env_noncrypted_password());
              }));
}

TEST(EnvPassword, KeepsAtMost4095Bytes) {
    for (const std::size_t length : {4094U, 4095U, 4096U, 10000U}) {
        EXPECT_EQ(0, statusOfChild([length] {
                      ::setenv("OVN_PASSWORD", std::string(length, 'p').c_str(), 1);
                      EXPECT_EQ(std::string(std::min<std::size_t>(length, 4095), 'p'),
                                get_env_noncrypted_password());
                  }))
            << length;
    }
}

TEST(EnvPassword, RemovesEveryDefinitionOfTheVariable) {
    EXPECT_EQ(0, statusOfChild([] {
                  std::string first = "OVN_PASSWORD=one";
                  std::string second = "OVN_PASSWORD=two";
                  std::string other = "OVN_PASSWORD_HINT=three";
                  char* block[] = {first.data(), second.data(), other.data(), nullptr};
                  environ = block;
                  EXPECT_STREQ("one", get_env_noncrypted_password());
                  EXPECT_EQ(nullptr, std::getenv("OVN_PASSWORD"));
                  EXPECT_EQ(first, "OVN_PASSWORD=" + std::string(3, '\0'));
                  EXPECT_EQ(second, "OVN_PASSWORD=" + std::string(3, '\0'));
                  EXPECT_EQ(other, "OVN_PASSWORD_HINT=three");
              }));
}

TEST(EnvPassword, CannotBeReadInProcAfterwards) {
    std::string environment;
    std::string error;
    ArgList args;
    args << ENV_PASSWORD_PROBE;
    ASSERT_EQ(0, forkExecvGetOutErrSuidEnv(environment, error, ENV_PASSWORD_PROBE, args, "",
                                           {{"OVN_PASSWORD", "loginSecret"},
                                            {"OVN_SUDO_PASSWORD", "sudoSecret"},
                                            {"OVN_OTHER", "visible"}}))
        << error;
    EXPECT_THAT(environment, HasSubstr("OVN_OTHER=visible"));
    EXPECT_THAT(environment, Not(HasSubstr("loginSecret")));
    EXPECT_THAT(environment, Not(HasSubstr("sudoSecret")));
}

TEST(SudoPassword, IsProvidedAlsoWhenEmpty) {
    const ScopedEnv empty("OVN_SUDO_PASSWORD", "");
    EXPECT_TRUE(is_sudo_password_provided());
    EXPECT_EQ("", get_sudo_password());
}

TEST(SudoPassword, IsNotProvidedWithoutTheVariable) {
    const ScopedEnv none("OVN_SUDO_PASSWORD", std::nullopt);
    EXPECT_FALSE(is_sudo_password_provided());
    EXPECT_EQ("", get_sudo_password());
}

TEST(SudoPassword, CanBeReadUntilItIsForgotten) {
    const ScopedEnv variable("OVN_SUDO_PASSWORD", "sudo secret");
    EXPECT_EQ("sudo secret", get_sudo_password());
    EXPECT_EQ("sudo secret", get_sudo_password());
    forgetSudoPassword();
    EXPECT_FALSE(is_sudo_password_provided());
}

TEST(Passwords, AreDroppedFromAChildsEnvironment) {
    const ScopedEnv password("OVN_PASSWORD", "loginSecret");
    const ScopedEnv sudoPassword("OVN_SUDO_PASSWORD", "sudoSecret");
    dropPasswordsFromEnvironment();
    EXPECT_EQ(nullptr, std::getenv("OVN_PASSWORD"));
    EXPECT_EQ(nullptr, std::getenv("OVN_SUDO_PASSWORD"));
}

}  // namespace
}  // namespace korva
