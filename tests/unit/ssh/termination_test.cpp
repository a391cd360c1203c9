// SPDX-License-Identifier: Apache-2.0
#include "commons/termination.h"

#include "support/child_process.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <type_traits>

namespace korva {
namespace {

using test::statusOfChild;

TEST(Termination, IsNotAskedForAtTheStart) {
    EXPECT_NO_THROW(checkProgramTerminated());
}

TEST(Termination, StaysAskedFor) {
    EXPECT_EQ(0, statusOfChild([] {
                  terminateProgram();
                  EXPECT_THROW(checkProgramTerminated(), MigrationTerminatedException);
                  EXPECT_THROW(checkProgramTerminated(), MigrationTerminatedException);
              }));
}

TEST(Termination, CanBeAskedForInASignalHandler) {
    EXPECT_EQ(0, statusOfChild([] {
                  std::signal(SIGTERM, [](int) { terminateProgram(); });
                  raise(SIGTERM);
                  EXPECT_THROW(checkProgramTerminated(), MigrationTerminatedException);
              }));
}

TEST(MigrationTerminatedException, SaysWhatHappenedAndIsAPlainRuntimeError) {
    EXPECT_STREQ("Migration has been terminated", MigrationTerminatedException().what());
    EXPECT_TRUE((std::is_base_of_v<std::runtime_error, MigrationTerminatedException>));
}

}  // namespace
}  // namespace korva
