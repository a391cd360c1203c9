// SPDX-License-Identifier: Apache-2.0
#include "utils/write_all.h"

#include "support/file_size_limit.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace korva {
namespace {

using test::FileSizeLimit;
using test::readFile;
using test::TempDir;

class WriteAll : public testing::Test {
  protected:
    WriteAll() : fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600)) {}
    ~WriteAll() override { ::close(fd); }

    TempDir dir;
    const std::string path = dir / "file";
    const int fd;
};

TEST_F(WriteAll, WritesEveryByte) {
    const std::string bytes("a\0b", 3);
    EXPECT_EQ(3U, writeAll(fd, bytes));
    EXPECT_EQ(0U, writeAll(fd, ""));
    EXPECT_EQ(bytes, readFile(path));
}

TEST_F(WriteAll, TellsHowFarItCameAndWhyNotFurther) {
    const FileSizeLimit disk(4);
    EXPECT_EQ(4U, writeAll(fd, "content"));
    EXPECT_EQ(EFBIG, errno);
    EXPECT_EQ("cont", readFile(path));
}

TEST(WriteAllToNothing, WritesNothing) {
    EXPECT_EQ(0U, writeAll(-1, "content"));
    EXPECT_EQ(EBADF, errno);
}

}  // namespace
}  // namespace korva
