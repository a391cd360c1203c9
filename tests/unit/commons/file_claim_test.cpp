// SPDX-License-Identifier: Apache-2.0
#include "commons/file_claim.h"

#include "commons/system_error.h"
#include "support/child_process.h"
#include "support/fake_flock.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

namespace korva {
namespace {

namespace fs = std::filesystem;

using test::beforeFlock;
using test::readFile;
using test::statusOfChild;
using test::TempDir;
using test::writeFile;

class FileClaimTest : public testing::Test {
  protected:
    ~FileClaimTest() override { beforeFlock = nullptr; }

    int errorOfClaim() const {
        try {
            const FileClaim claim(path);
        } catch (const SystemError& error) {
            return error.code();
        }
        return 0;
    }

    TempDir dir;
    const std::string path = dir / "file";
};

TEST_F(FileClaimTest, MakesTheFileWhenThereIsNone) {
    EXPECT_TRUE(FileClaim(path).isHeld());
    EXPECT_EQ("", readFile(path));
}

TEST_F(FileClaimTest, ChangesNothingOfAFileThatIsThere) {
    writeFile(path, "half");
    const FileClaim claim(path);
    EXPECT_TRUE(claim.isHeld());
    EXPECT_EQ("half", readFile(path));
}

TEST_F(FileClaimTest, IsRefusedToOthersAsLongAsItLives) {
    {
        const FileClaim claim(path);
        EXPECT_FALSE(FileClaim(path).isHeld());
        EXPECT_EQ(0, statusOfChild([this] { EXPECT_FALSE(FileClaim(path).isHeld()); }));
    }
    EXPECT_TRUE(FileClaim(path).isHeld());
}

TEST_F(FileClaimTest, EndsWithTheProcess) {
    EXPECT_EQ(0, statusOfChild([this] {
                  const FileClaim claim(path);
                  ::_exit(0);
              }));
    EXPECT_TRUE(FileClaim(path).isHeld());
}

TEST_F(FileClaimTest, IsNotHeldOnAFileThatGetsAnotherNameMeanwhile) {
    beforeFlock = [this] { fs::rename(path, dir / "final"); };
    EXPECT_FALSE(FileClaim(path).isHeld());
}

TEST_F(FileClaimTest, IsNotHeldOnAFileThatIsReplacedMeanwhile) {
    beforeFlock = [this] {
        writeFile(dir / "new", "new");
        fs::rename(dir / "new", path);
    };
    EXPECT_FALSE(FileClaim(path).isHeld());
    EXPECT_EQ("new", readFile(path));
}

TEST_F(FileClaimTest, FailsForWhatIsNoRegularFile) {
    fs::create_symlink("target", path);
    EXPECT_EQ(ELOOP, errorOfClaim());
    EXPECT_FALSE(fs::exists(dir / "target"));
    fs::remove(path);
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    EXPECT_EQ(ENXIO, errorOfClaim());
}

}  // namespace
}  // namespace korva
