// SPDX-License-Identifier: Apache-2.0
#include "tallowick/name_record.h"

#include "fakes/fake_fsync.h"
#include "support/file_size_limit.h"
#include "support/files.h"
#include "support/temp_dir.h"
#include "support/thrown_errors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace korva {
namespace {

namespace fs = std::filesystem;

using test::errorsOf;
using test::FakeFsync;
using test::FileSizeLimit;
using test::isError;
using test::readFile;
using test::TempDir;
using test::writeFile;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::StartsWith;

class NameRecord : public testing::Test {
  protected:
    /// Expects that the record cannot be written for a reason that ends so.
    void expectFailure(const std::string& reason) const {
        EXPECT_THAT(errorsOf([this] { writeNameRecord(path, "the name"); }),
                    ElementsAre(isError("FileWrite", AllOf(StartsWith("Error during " + path + " write: "),
                                                           EndsWith(reason)))));
    }

    std::vector<std::string> names() const {
        std::vector<std::string> all;
        for (const auto& entry : fs::directory_iterator(dir.path())) {
            all.push_back(entry.path().filename());
        }
        return all;
    }

    TempDir dir;
    const std::string path = dir / "dump-name";
};

TEST_F(NameRecord, RemovesWhatAKilledRunHasLeftOfOne) {
    writeFile(dir / ".incoming-1-01234567-89ab-cdef-0123-456789abcdef", "hal");
    writeNameRecord(path, "/session/dump.xml");
    EXPECT_THAT(names(), ElementsAre("dump-name"));
}

TEST_F(NameRecord, HoldsTheNameAndNothingElse) {
    writeNameRecord(path, "/session/dump.xml");
    EXPECT_EQ("/session/dump.xml", readFile(path));
}

TEST_F(NameRecord, IsReplacedWhole) {
    writeFile(path, "something much longer than the name");
    writeNameRecord(path, "/new");
    EXPECT_EQ("/new", readFile(path));
}

TEST_F(NameRecord, IsFlushedToTheDiskBeforeItHasItsNameAndThenWithItsDirectory) {
    writeFile(path, "the old name");
    FakeFsync fsync;
    fsync.onFlush = [this](const std::string& flushed) {
        EXPECT_EQ(flushed == dir.path() ? "the name" : "the old name", readFile(path));
    };
    writeNameRecord(path, "the name");
    EXPECT_THAT(FakeFsync::flushed(), ElementsAre(StartsWith(dir / ".incoming-"), dir.path()));
}

TEST_F(NameRecord, StaysAsItWasWhenTheNewOneCannotBeFlushed) {
    writeFile(path, "the old name");
    const FakeFsync fsync(EIO);
    expectFailure("Input/output error");
    EXPECT_EQ("the old name", readFile(path));
    EXPECT_THAT(names(), ElementsAre("dump-name"));
}

TEST_F(NameRecord, FailsWhereNoFileCanBe) {
    fs::create_directory(path);
    expectFailure("Is a directory");
}

TEST_F(NameRecord, StaysAsItWasOnAFullDisk) {
    writeFile(path, "old");
    const FileSizeLimit disk(4);
    expectFailure("File too large");
    EXPECT_EQ("old", readFile(path));
    EXPECT_THAT(names(), ElementsAre("dump-name"));
}

TEST_F(NameRecord, IsNotMadeOnAFullDisk) {
    const FileSizeLimit disk(4);
    expectFailure("File too large");
    EXPECT_THAT(names(), ElementsAre());
}

TEST_F(NameRecord, IsNeverWrittenIntoByItsReplacement) {
    writeFile(path, "the old name");
    std::ifstream reader(path);
    writeNameRecord(path, "new");
    std::string seen;
    std::getline(reader, seen);
    EXPECT_EQ("the old name", seen);
}

TEST_F(NameRecord, IsWrittenThroughNoLink) {
    writeFile(dir / "target", "old");
    fs::create_symlink("target", path);
    expectFailure("Too many levels of symbolic links");
    EXPECT_EQ("old", readFile(dir / "target"));
    EXPECT_TRUE(fs::is_symlink(path));
}

TEST_F(NameRecord, WaitsForNobodyAtAFifo) {
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    expectFailure("No such device or address");
    EXPECT_TRUE(fs::is_fifo(path));
}

TEST_F(NameRecord, TellsWhichComponentHasFailed) {
    const auto errors = errorsOf([this] { writeNameRecord(dir / "no/such/directory", "the name"); });
    ASSERT_EQ(1U, errors.size());
    EXPECT_EQ("./actions", errors[0].file);
}

}  // namespace
}  // namespace korva
