// SPDX-License-Identifier: Apache-2.0
#include "commons/output_file.h"

#include "commons/stream_errors.h"
#include "support/file_size_limit.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace korva {
namespace {

namespace fs = std::filesystem;

using test::FileSizeLimit;
using test::readFile;
using test::TempDir;
using test::writeFile;

class OutputFileTest : public testing::Test {
  protected:
    void expectRefused() const {
        OutputFile file(path);
        EXPECT_FALSE(file.isOpen());
        EXPECT_FALSE(file << "x");
        EXPECT_THROW(file.close(), Exc<&StreamWrite>);
    }
    struct stat status() const {
        struct stat result {};
        EXPECT_EQ(0, ::stat(path.c_str(), &result));
        return result;
    }

    TempDir dir;
    const std::string path = dir / "file";
};

TEST_F(OutputFileTest, WritesAtOnceWhatItIsGiven) {
    OutputFile file(path);
    EXPECT_TRUE(file.isOpen());
    file << "number " << 1;
    EXPECT_EQ("number 1", readFile(path));
    file.put('\n');
    EXPECT_EQ("number 1\n", readFile(path));
    file.close();
}

TEST_F(OutputFileTest, WritesLargeDataWhole) {
    const std::string content(3000000, 'x');
    OutputFile file(path);
    file << content;
    file.close();
    EXPECT_EQ(content, readFile(path));
}

TEST_F(OutputFileTest, WritesAnExistingFileFromItsBeginning) {
    writeFile(path, "something much longer");
    OutputFile file(path);
    file << "new";
    file.close();
    EXPECT_EQ("new", readFile(path));
}

TEST_F(OutputFileTest, FollowsNoLink) {
    writeFile(dir / "target", "old");
    fs::create_symlink("target", path);
    expectRefused();
    EXPECT_EQ("old", readFile(dir / "target"));
    EXPECT_TRUE(fs::is_symlink(path));
}

TEST_F(OutputFileTest, WaitsForNobodyAtAFifo) {
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    expectRefused();
    EXPECT_TRUE(fs::is_fifo(path));
}

TEST_F(OutputFileTest, FailsWhereNoFileCanBe) {
    fs::create_directory(path);
    expectRefused();
    OutputFile file(dir / "no/such/directory");
    EXPECT_THROW(file.close(), Exc<&StreamWrite>);
}

TEST_F(OutputFileTest, FailsOnAFullDiskAndWritesNothingMore) {
    const FileSizeLimit disk(4);
    OutputFile file(path);
    EXPECT_FALSE(file << "small");
    file << "x";
    EXPECT_THROW(file.close(), Exc<&StreamWrite>);
    EXPECT_EQ("smal", readFile(path));
}

TEST_F(OutputFileTest, FailsOnAFullDiskWithASingleByte) {
    const FileSizeLimit disk(0);
    OutputFile file(path);
    EXPECT_FALSE(file.put('x'));
    EXPECT_THROW(file.close(), Exc<&StreamWrite>);
}

TEST_F(OutputFileTest, IsGivenToAnAccountAndItsGroup) {
    const passwd* const nobody = ::getpwnam("nobody");
    ASSERT_NE(nullptr, nobody);
    const uid_t user = nobody->pw_uid;
    const gid_t group = nobody->pw_gid;
    OutputFile file(path);
    file.giveTo("nobody");
    file.close();
    EXPECT_EQ(user, status().st_uid);
    EXPECT_EQ(group, status().st_gid);
}

TEST_F(OutputFileTest, IsGivenToRootInPlaceOfAnAccountThatDoesNotExist) {
    writeFile(path, "");
    ASSERT_EQ(0, ::chown(path.c_str(), 4711, 4712));
    OutputFile file(path);
    file.giveTo("no-such-account");
    EXPECT_NO_THROW(file.close());
    EXPECT_EQ(0U, status().st_uid);
    EXPECT_EQ(0U, status().st_gid);
}

TEST_F(OutputFileTest, IsGivenToNobodyWhenItIsNotOpen) {
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    OutputFile file(path);
    EXPECT_NO_THROW(file.giveTo("nobody"));
    EXPECT_EQ(0U, status().st_uid);
}

TEST(DescriptorBuffer, TakesTheEndOfFileForNoByte) {
    class Open : public DescriptorBuffer {
      public:
        using DescriptorBuffer::DescriptorBuffer;
        using DescriptorBuffer::overflow;
    };
    errno = ENOENT;
    Open buffer(-1, "a file");
    EXPECT_NE(Open::traits_type::eof(), buffer.overflow(Open::traits_type::eof()));
    EXPECT_EQ(Open::traits_type::eof(), buffer.overflow('x'));
    EXPECT_FALSE(buffer.close());
}

}  // namespace
}  // namespace korva
