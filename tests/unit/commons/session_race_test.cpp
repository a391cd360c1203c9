// SPDX-License-Identifier: Apache-2.0
#include "commons/filesystem.h"
#include "commons/session.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace korva {

/// Instead of creating "archives", somebody else removes the directory that was to hold it.
void make_dir(const std::string& path, uid_t /*owner*/, gid_t /*group*/, mode_t /*mode*/) {
    std::filesystem::remove_all(std::filesystem::path(path).parent_path());
}

namespace {

TEST(SessionRace, FailsWhenTheDirectoryVanishesWhileArchivesAreMade) {
    const test::TempDir directory;
    std::filesystem::create_directory(directory / "session");
    try {
        const SessionFiles session(directory / "session");
        FAIL();
    } catch (const Exc<&UnableToCreateSession>& error) {
        EXPECT_STREQ("Unable to create session: Unable to create session archives directory", error.what());
    }
}

}  // namespace
}  // namespace korva
