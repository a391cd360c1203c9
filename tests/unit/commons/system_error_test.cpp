// SPDX-License-Identifier: Apache-2.0
#include "commons/system_error.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace korva {
namespace {

TEST(SystemError, JoinsMessageAndSystemText) {
    EXPECT_STREQ("opening: Permission denied", SystemError("opening", EACCES).what());
}

TEST(SystemError, WithEmptyMessageAndCodeZeroRendersThePresentErrnoAlone) {
    ASSERT_EQ(-1, ::access("/no/such/file", F_OK));
    const SystemError error("", 0);
    EXPECT_EQ(ENOENT, error.code());
    errno = EACCES;
    EXPECT_EQ(std::strerror(ENOENT), std::string(error.what()));
}

TEST(SystemError, GivesTheSameTextAgain) {
    const SystemError error("x", EIO);
    const char* text = error.what();
    EXPECT_EQ(text, error.what());
}

TEST(SystemError, KeepsItsTextInACopyThatOutlivesIt) {
    auto* original = new SystemError("kept for later use by the copy", EIO);
    original->what();
    const SystemError copy(*original);
    delete original;
    EXPECT_STREQ("kept for later use by the copy: Input/output error", copy.what());
}

TEST(ThrowSystemError, WithCode2CanBeCaughtAsItsOwnTypeAndAsSystemError) {
    EXPECT_THROW(throwSystemError("x", 2), ExSystemError<2>);
    EXPECT_THROW(throwSystemError("x", 2), SystemError);
    EXPECT_THROW(throwSystemError("x", 2), std::runtime_error);
}

template <int N>
void expectOwnType() {
    try {
        throwSystemError("message", N);
    } catch (const ExSystemError<N>& error) {
        EXPECT_EQ(N, error.code());
        EXPECT_EQ(std::string("message: ") + std::strerror(N), error.what());
    }
}

TEST(ThrowSystemError, HasATypeForEachCodeThatCallersTellApart) {
    expectOwnType<1>();
    expectOwnType<2>();
    expectOwnType<4>();
    expectOwnType<10>();
    expectOwnType<11>();
}

TEST(ThrowSystemError, ThrowsAPlainSystemErrorForOtherCodes) {
    try {
        throwSystemError("message", EIO);
    } catch (const SystemError& error) {
        EXPECT_EQ(typeid(SystemError), typeid(error));
        EXPECT_EQ(EIO, error.code());
    }
}

TEST(ThrowSystemError, ThrowsAPlainSystemErrorWithThePresentErrnoForCodeZero) {
    try {
        errno = ENOENT;
        throwSystemError("message", 0);
    } catch (const SystemError& error) {
        EXPECT_EQ(typeid(SystemError), typeid(error));
        EXPECT_EQ(ENOENT, error.code());
    }
}

}  // namespace
}  // namespace korva
