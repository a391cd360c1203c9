// SPDX-License-Identifier: Apache-2.0
#include "commons/incoming_file.h"

#include "commons/stream_errors.h"
#include "commons/system_error.h"
#include "commons/umask_scope.h"
#include "support/child_process.h"
#include "support/fake_flock.h"
#include "support/file_size_limit.h"
#include "support/files.h"
#include "support/syscall_filter.h"
#include "support/temp_dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace korva {
namespace {

namespace fs = std::filesystem;

using test::beforeFlock;
using test::failSyscall;
using test::FileSizeLimit;
using test::readFile;
using test::statusOfChild;
using test::TempDir;
using test::writeFile;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::UnorderedElementsAre;

class Incoming : public testing::Test {
  protected:
    std::vector<std::string> names() const {
        std::vector<std::string> all;
        for (const auto& entry : fs::directory_iterator(dir.path())) {
            all.push_back(entry.path().filename());
        }
        std::sort(all.begin(), all.end());
        return all;
    }
    /// The error of a file that is to be refused before anything is created.
    std::string refusal(const std::string& name = "file") const {
        const std::vector<std::string> before = names();
        std::string text = "no refusal";
        try {
            const IncomingFile file(directory, name);
        } catch (const SystemError& error) {
            text = error.what();
        }
        EXPECT_EQ(before, names());
        return text;
    }
    /// Leaves behind what a run that is killed does. Returns the name of that file.
    std::string leaveAbandoned() const {
        const std::vector<std::string> before = names();
        statusOfChild([this] {
            IncomingFile file(directory, "file");
            file.stream() << "half";
            ::_exit(0);
        });
        for (const std::string& name : names()) {
            if (std::find(before.begin(), before.end(), name) == before.end()) {
                return name;
            }
        }
        return "nothing was left";
    }

    TempDir dir;
    const Descriptor directory{::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
};

TEST_F(Incoming, IsReceivedBesideTheFinalNameAndThenPutInItsPlace) {
    writeFile(dir / "file", "old");
    IncomingFile file(directory, "file");
    file.stream() << "new";
    file.close();
    EXPECT_EQ("old", readFile(dir / "file"));
    ASSERT_THAT(names(), ElementsAre(MatchesRegex("\\.incoming-.*"), "file"));
    EXPECT_EQ("new", readFile(dir / names()[0]));
    file.install();
    EXPECT_EQ("new", readFile(dir / "file"));
    EXPECT_THAT(names(), ElementsAre("file"));
}

TEST_F(Incoming, IsRemovedUnlessItIsInstalled) {
    writeFile(dir / "file", "old");
    {
        IncomingFile file(directory, "file");
        file.stream() << "new";
        file.close();
    }
    EXPECT_EQ("old", readFile(dir / "file"));
    EXPECT_THAT(names(), ElementsAre("file"));
}

TEST_F(Incoming, StaysWhenItIsInstalled) {
    {
        IncomingFile file(directory, "file");
        file.close();
        file.install();
    }
    EXPECT_EQ("", readFile(dir / "file"));
}

TEST_F(Incoming, ReplacesAFileAsANewOne) {
    writeFile(dir / "file", "old");
    fs::create_hard_link(dir / "file", dir / "reader");
    IncomingFile file(directory, "file");
    file.stream() << "new";
    file.close();
    file.install();
    EXPECT_EQ("old", readFile(dir / "reader"));
}

TEST_F(Incoming, IsReadableForAllWhateverTheProcessMaskIsWhichIsRestored) {
    const UmaskScope narrow(0777);
    IncomingFile file(directory, "file");
    EXPECT_EQ(mode_t{0777}, ::umask(0777));
    file.close();
    file.install();
    struct stat status {};
    ASSERT_EQ(0, ::stat((dir / "file").c_str(), &status));
    EXPECT_EQ(0644U, status.st_mode & 07777U);
}

TEST_F(Incoming, IsReadableForNobodyElseUntilItIsLocked) {
    std::vector<unsigned> modes;
    beforeFlock = [&] {
        struct stat status {};
        ASSERT_EQ(0, ::stat((dir / names().at(0)).c_str(), &status));
        modes.push_back(status.st_mode & 07777U);
    };
    const IncomingFile file(directory, "file");
    beforeFlock = nullptr;
    EXPECT_THAT(modes, ElementsAre(0600U));
}

TEST_F(Incoming, CannotBeCreatedWhereItCannotBeMadeReadable) {
    EXPECT_EQ(0, statusOfChild([this] {
                  failSyscall(__NR_fchmod, EIO);
                  IncomingFile file(directory, "file");
                  EXPECT_FALSE(file.stream());
                  EXPECT_EQ("Input/output error", file.failure());
                  EXPECT_THAT(names(), IsEmpty());
              }));
}

TEST_F(Incoming, CountsAndSumsWhatArrives) {
    IncomingFile file(directory, "file", IncomingFile::Sum::kMd5);
    EXPECT_EQ(0, file.size());
    file.stream() << "some";
    file.stream().put(' ');
    file.stream() << "bytes";
    file.close();
    EXPECT_EQ(10, file.size());
    EXPECT_EQ(countMd5Sum(std::string("some bytes")), file.md5());
}

TEST_F(Incoming, HasTheSumOfNothingWhenNothingArrives) {
    IncomingFile file(directory, "file", IncomingFile::Sum::kMd5);
    file.close();
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", file.md5());
}

TEST_F(Incoming, FailsOnAFullDiskAndCountsWhatArrivedOnly) {
    writeFile(dir / "file", "old");
    {
        const FileSizeLimit disk(4);
        IncomingFile file(directory, "file", IncomingFile::Sum::kMd5);
        EXPECT_FALSE(file.stream() << "small");
        EXPECT_THROW(file.close(), Exc<&StreamWrite>);
        EXPECT_EQ(4, file.size());
        EXPECT_EQ(countMd5Sum(std::string("smal")), file.md5());
    }
    EXPECT_EQ("old", readFile(dir / "file"));
    EXPECT_THAT(names(), ElementsAre("file"));
}

TEST_F(Incoming, RefusesALinkInItsPlaceWhereverThatLeads) {
    writeFile(dir / "target", "old");
    fs::create_symlink("target", dir / "file");
    EXPECT_EQ("file is not a regular file: Too many levels of symbolic links", refusal());
    fs::remove(dir / "target");
    EXPECT_EQ("file is not a regular file: Too many levels of symbolic links", refusal());
    EXPECT_TRUE(fs::is_symlink(dir / "file"));
}

TEST_F(Incoming, RefusesAFifoInItsPlace) {
    ASSERT_EQ(0, ::mkfifo((dir / "file").c_str(), 0600));
    EXPECT_EQ("file is not a regular file: File exists", refusal());
    EXPECT_TRUE(fs::is_fifo(dir / "file"));
}

TEST_F(Incoming, RefusesADirectoryInItsPlace) {
    fs::create_directory(dir / "file");
    EXPECT_EQ("file: Is a directory", refusal());
    EXPECT_TRUE(fs::is_directory(dir / "file"));
}

TEST_F(Incoming, RefusesANameThatCannotBeLookedUp) {
    EXPECT_THAT(refusal(std::string(256, 'x')), EndsWith(": File name too long"));
}

TEST_F(Incoming, TakesANameAsLongAsNamesCanBe) {
    const std::string name(255, 'x');
    IncomingFile file(directory, name);
    file.close();
    file.install();
    EXPECT_THAT(names(), ElementsAre(name));
}

TEST_F(Incoming, FailsFromTheStartWhereNothingCanBeCreated) {
    fs::remove(dir.path());
    IncomingFile file(directory, "file");
    EXPECT_FALSE(file.stream());
    EXPECT_THROW(file.close(), Exc<&StreamWrite>);
}

TEST_F(Incoming, FailsWhenItCannotBeInstalledAndIsRemoved) {
    {
        IncomingFile file(directory, "file");
        file.close();
        fs::create_directory(dir / "file");
        try {
            file.install();
            FAIL() << "no error";
        } catch (const SystemError& error) {
            EXPECT_STREQ("rename to file: Is a directory", error.what());
        }
    }
    EXPECT_THAT(names(), ElementsAre("file"));
}

TEST_F(Incoming, DoesNotMixUpTwoFilesOfOneName) {
    IncomingFile first(directory, "file");
    IncomingFile second(directory, "file");
    first.stream() << "first";
    second.stream() << "second";
    first.close();
    second.close();
    first.install();
    EXPECT_EQ("first", readFile(dir / "file"));
    second.install();
    EXPECT_EQ("second", readFile(dir / "file"));
}

TEST_F(Incoming, KnowsTheNamesThatNewFilesGet) {
    const IncomingFile file(directory, "file");
    const std::string name = names().at(0);
    EXPECT_TRUE(IncomingFile::isTemporaryName(name));
    const std::string uuid = name.substr(name.size() - 36);
    EXPECT_TRUE(IncomingFile::isTemporaryName(".incoming-1-" + uuid));
    for (const std::string& other :
         {std::string(), std::string(".incoming-"), ".incoming--" + uuid, ".incoming-1" + uuid,
          ".incoming-1-" + uuid + "x", ".incoming-1-" + uuid.substr(1), ".incoming-x-" + uuid,
          ".incoming-" + std::string(48, '1'), ".incoming-1-" + std::string(36, 'a'),
          ".incoming-1-" + uuid.substr(0, 35) + "g", "x" + name, "incoming-1-" + uuid}) {
        EXPECT_FALSE(IncomingFile::isTemporaryName(other)) << other;
    }
}

TEST_F(Incoming, IsSweptAwayWhenItsRunWasKilled) {
    const std::string abandoned = leaveAbandoned();
    EXPECT_EQ("half", readFile(dir / abandoned));
    writeFile(dir / "file", "old");
    IncomingFile::removeAbandoned(directory);
    EXPECT_THAT(names(), ElementsAre("file"));
}

TEST_F(Incoming, IsLeftAloneWhileItsRunGoesOn) {
    std::optional<IncomingFile> file(std::in_place, directory, "file");
    file->stream() << "new";
    IncomingFile::removeAbandoned(directory);
    EXPECT_EQ(1U, names().size());
    file->close();
    IncomingFile::removeAbandoned(directory);
    ASSERT_EQ(1U, names().size());
    file->install();
    file.reset();
    IncomingFile::removeAbandoned(directory);
    EXPECT_EQ("new", readFile(dir / "file"));
}

TEST_F(Incoming, IsNotMistakenForALinkOrFifoThatBearsSuchAName) {
    const std::string link = leaveAbandoned();
    fs::remove(dir / link);
    fs::create_symlink("target", dir / link);
    const std::string fifo = leaveAbandoned();
    fs::remove(dir / fifo);
    ASSERT_EQ(0, ::mkfifo((dir / fifo).c_str(), 0600));
    writeFile(dir / "target", "");
    IncomingFile::removeAbandoned(directory);
    EXPECT_THAT(names(), UnorderedElementsAre(link, fifo, "target"));
}

TEST_F(Incoming, IsCreatedAnewWhenAnotherRunSweptItAwayBeforeItWasLocked) {
    int sweeps = 0;
    beforeFlock = [&] {
        beforeFlock = nullptr;
        ++sweeps;
        IncomingFile::removeAbandoned(directory);
    };
    IncomingFile file(directory, "file");
    beforeFlock = nullptr;
    EXPECT_EQ(1, sweeps);
    file.stream() << "new";
    file.close();
    file.install();
    EXPECT_EQ("new", readFile(dir / "file"));
}

/// Holds the lock of each new file before its own run can.
class LockHeldByOthers : public Incoming {
  protected:
    /// The first `count` files only.
    void lockFirst(std::size_t count) {
        beforeFlock = [this, count] {
            if (locking_ || held_.size() == count) {
                return;
            }
            locking_ = true;
            held_.emplace_back(::open((dir / names().at(0)).c_str(), O_RDONLY | O_CLOEXEC));
            ASSERT_EQ(0, ::flock(held_.back().fd(), LOCK_EX));
            locking_ = false;
        };
    }
    ~LockHeldByOthers() override { beforeFlock = nullptr; }

  private:
    std::vector<Descriptor> held_;
    bool locking_ = false;
};

TEST_F(LockHeldByOthers, IsNotWaitedForSinceAnotherNewFileCanBeHad) {
    lockFirst(3);
    IncomingFile file(directory, "file");
    file.stream() << "new";
    file.close();
    file.install();
    EXPECT_EQ("new", readFile(dir / "file"));
    EXPECT_THAT(names(), ElementsAre("file"));
}

TEST_F(LockHeldByOthers, OnEveryFileIsAFailureNotARunWithoutEnd) {
    lockFirst(1000);
    const IncomingFile file(directory, "file");
    EXPECT_EQ("Resource temporarily unavailable", file.failure());
    EXPECT_THAT(names(), IsEmpty());
}

}  // namespace
}  // namespace korva
