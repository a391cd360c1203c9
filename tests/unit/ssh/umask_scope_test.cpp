// SPDX-License-Identifier: Apache-2.0
#include "commons/umask_scope.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace korva {
namespace {

mode_t currentUmask() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return mask;
}

TEST(UmaskScope, SetsTheMaskAndPutsItBack) {
    const UmaskScope unusual(0137);
    {
        const UmaskScope scope(022);
        EXPECT_EQ(mode_t{022}, currentUmask());
    }
    EXPECT_EQ(mode_t{0137}, currentUmask());
}

TEST(UmaskScope, PutsTheMaskBackWhenAnErrorLeavesIt) {
    const UmaskScope unusual(0137);
    try {
        const UmaskScope scope(022);
        throw std::runtime_error("an error");
    } catch (const std::runtime_error&) {
        EXPECT_EQ(mode_t{0137}, currentUmask());
    }
}

}  // namespace
}  // namespace korva
