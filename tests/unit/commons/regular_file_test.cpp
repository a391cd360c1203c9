// SPDX-License-Identifier: Apache-2.0
#include "commons/regular_file.h"

#include "commons/checksum.h"
#include "commons/descriptor.h"
#include "commons/system_error.h"
#include "commons/umask_scope.h"
#include "support/child_process.h"
#include "support/files.h"
#include "support/syscall_filter.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <sstream>
#include <string>

namespace korva {
namespace {

namespace fs = std::filesystem;

using test::TempDir;
using test::writeFile;

std::ptrdiff_t openDescriptors() {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

class RegularFile : public testing::Test {
  protected:
    /// What errno says of an attempt to open a file that is to fail.
    int errorOf(const std::string& name, int flags) const {
        const std::ptrdiff_t before = openDescriptors();
        EXPECT_EQ(-1, openRegularFile(directory.fd(), name, flags)) << name;
        const int error = errno;
        EXPECT_EQ(before, openDescriptors()) << name;
        return error;
    }

    TempDir dir;
    const Descriptor directory{::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
};

TEST_F(RegularFile, IsOpenedInTheGivenDirectoryOrByItsWholePath) {
    writeFile(dir / "file", "x");
    for (const auto& [at, name] :
         {std::pair(directory.fd(), std::string("file")), std::pair(int{AT_FDCWD}, dir / "file")}) {
        const Descriptor file(openRegularFile(at, name, O_RDONLY));
        char byte = 0;
        EXPECT_EQ(1, ::read(file.fd(), &byte, 1));
        EXPECT_EQ('x', byte);
    }
}

TEST_F(RegularFile, IsCreatedReadableForAllAsFarAsTheUmaskLetsIt) {
    const UmaskScope umask(027);
    const Descriptor file(openRegularFile(directory.fd(), "file", O_WRONLY | O_CREAT | O_EXCL));
    struct stat status {};
    ASSERT_EQ(0, ::fstat(file.fd(), &status));
    EXPECT_EQ(0640U, status.st_mode & 07777U);
}

TEST_F(RegularFile, IsNotLeftToChildProcesses) {
    writeFile(dir / "file", "");
    const Descriptor file(openRegularFile(directory.fd(), "file", O_RDONLY));
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(file.fd(), F_GETFD));
}

TEST_F(RegularFile, IsNoLinkWhereverThatLeads) {
    writeFile(dir / "target", "old");
    fs::create_symlink("target", dir / "link");
    fs::create_symlink("missing", dir / "dangling");
    for (const int flags : {O_RDONLY, O_WRONLY, O_WRONLY | O_CREAT | O_TRUNC}) {
        EXPECT_EQ(ELOOP, errorOf("link", flags));
        EXPECT_EQ(ELOOP, errorOf("dangling", flags));
    }
    EXPECT_EQ("old", test::readFile(dir / "target"));
    EXPECT_FALSE(fs::exists(dir / "missing"));
}

TEST_F(RegularFile, IsNoFifoWhichIsNotWaitedFor) {
    ASSERT_EQ(0, ::mkfifo((dir / "fifo").c_str(), 0600));
    EXPECT_EQ(EOPNOTSUPP, errorOf("fifo", O_RDONLY));
    EXPECT_EQ(ENXIO, errorOf("fifo", O_WRONLY | O_CREAT | O_TRUNC));
    const Descriptor reader(::open((dir / "fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_EQ(EOPNOTSUPP, errorOf("fifo", O_WRONLY | O_CREAT | O_TRUNC));
}

TEST_F(RegularFile, IsNoDirectoryAndNoDevice) {
    fs::create_directory(dir / "directory");
    EXPECT_EQ(EISDIR, errorOf("directory", O_RDONLY));
    EXPECT_EQ(EISDIR, errorOf("directory", O_WRONLY));
    EXPECT_EQ(EOPNOTSUPP, errorOf("/dev/null", O_RDONLY));
    EXPECT_EQ(EOPNOTSUPP, errorOf("/dev/null", O_WRONLY | O_CREAT | O_TRUNC));
}

TEST_F(RegularFile, TellsWhyItCannotBeOpened) {
    EXPECT_EQ(ENOENT, errorOf("missing", O_RDONLY));
    EXPECT_EQ(ENAMETOOLONG, errorOf(std::string(256, 'x'), O_WRONLY | O_CREAT));
    writeFile(dir / "file", "");
    EXPECT_EQ(EEXIST, errorOf("file", O_WRONLY | O_CREAT | O_EXCL));
}

TEST_F(RegularFile, TellsWhyItCannotBeLookedAt) {
    writeFile(dir / "file", "");
    EXPECT_EQ(0, test::statusOfChild([this] {
                  test::failSyscall(__NR_newfstatat, EIO);
                  test::failSyscall(__NR_fstat, EIO);
                  EXPECT_EQ(-1, openRegularFile(directory.fd(), "file", O_RDONLY));
                  EXPECT_EQ(EIO, errno);
              }));
}

TEST_F(RegularFile, IsSummedWhole) {
    for (const std::size_t size : {0U, 1U, 65535U, 65536U, 65537U, 200000U}) {
        const std::string content(size, 'x');
        writeFile(dir / "file", content);
        const std::optional<FileSum> sum = sumRegularFile(directory.fd(), "file");
        ASSERT_TRUE(sum) << size;
        EXPECT_EQ(countMd5Sum(content), sum->md5);
        EXPECT_EQ(static_cast<std::int64_t>(size), sum->size);
    }
}

TEST_F(RegularFile, HasNoSumWhenItIsNoneOrCannotBeRead) {
    writeFile(dir / "target", "content");
    fs::create_symlink("target", dir / "link");
    ASSERT_EQ(0, ::mkfifo((dir / "fifo").c_str(), 0600));
    // Nothing is mapped at the address 0, so the first read fails.
    for (const char* name : {"missing", "link", "fifo", ".", "/proc/self/mem"}) {
        EXPECT_FALSE(sumRegularFile(directory.fd(), name)) << name;
    }
}

TEST_F(RegularFile, IsCopiedWhole) {
    for (const std::size_t size : {0U, 1U, 65536U, 200000U}) {
        const std::string content(size, 'x');
        writeFile(dir / "file", content);
        std::ostringstream copy;
        copyRegularFile(dir / "file", copy);
        EXPECT_EQ(content, copy.str());
    }
}

TEST_F(RegularFile, LeavesTheFailureOfACopyToTheStream) {
    writeFile(dir / "file", "content");
    std::ostream broken(nullptr);
    EXPECT_NO_THROW(copyRegularFile(dir / "file", broken));
    EXPECT_FALSE(broken);
}

/// What a copy that is to fail throws.
std::string copyFailure(const std::string& path) {
    std::ostringstream copy;
    try {
        copyRegularFile(path, copy);
    } catch (const SystemError& error) {
        return error.what();
    }
    return "no failure";
}

TEST_F(RegularFile, TellsWhyItCannotBeCopied) {
    fs::create_symlink("target", dir / "link");
    EXPECT_EQ((dir / "missing") + ": No such file or directory", copyFailure(dir / "missing"));
    EXPECT_EQ((dir / "link") + ": Too many levels of symbolic links", copyFailure(dir / "link"));
    EXPECT_EQ("/proc/self/mem: Input/output error", copyFailure("/proc/self/mem"));
}

}  // namespace
}  // namespace korva
