// SPDX-License-Identifier: Apache-2.0
#include "commons/idna_error.h"

#include <gtest/gtest.h>
#include <idna.h>

#include <exception>

namespace korva {
namespace {

TEST(IdnaError, SaysWhatTheLibrarySays) {
    const idn::IdnaError error(IDNA_CONTAINS_MINUS);
    const std::exception& asException = error;
    EXPECT_STREQ(idna_strerror(IDNA_CONTAINS_MINUS), asException.what());
    EXPECT_STRNE(idna_strerror(IDNA_STRINGPREP_ERROR), asException.what());
}

}  // namespace
}  // namespace korva
