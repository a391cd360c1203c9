// SPDX-License-Identifier: Apache-2.0
#include "commons/stream_errors.h"
#include "commons/umask_scope.h"
#include "ssh/libssh2pp.h"
#include "support/file_size_limit.h"
#include "support/files.h"
#include "support/temp_dir.h"
#include "unit/ssh/ssh_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace korva {
namespace {

using test::debugRecord;
using test::errorRecord;
using test::FakeChannel;
using test::FakeRead;
using test::FileSizeLimit;
using test::readFile;
using test::RecordingCounter;
using test::SshOverFake;
using test::TempDir;
using test::writeFile;
using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class SshTransfer : public SshOverFake {
  protected:
    SshTransfer() : script(fake().nextChannel()) { connect(); }

    FakeChannel& script;
    TempDir dir;
    std::ostringstream out;
    std::ostringstream err;
    RecordingCounter counter;
};

using SshGet = SshTransfer;

TEST_F(SshGet, RunsCatOnTheQuotedPathAndReturnsItsStatus) {
    script.reads[0] = {{"content"}};
    script.reads[1] = {{"warning"}};
    script.exitStatus = 3;
    EXPECT_EQ(3, ssh().get(out, err, "a b'c\".xml", counter));
    EXPECT_THAT(fake().callsOf("exec"), ElementsAre("exec cat a\\ b\\'c\\\".xml"));
    EXPECT_EQ("content", out.str());
    EXPECT_EQ("warning", err.str());
    EXPECT_EQ("", script.input);
}

TEST_F(SshGet, LogsThePathAndNeverTheData) {
    script.reads[0] = {{"the data"}};
    script.reads[1] = {{"the error"}};
    ssh().get(out, err, "remote file", counter);
    EXPECT_EQ(debugRecord("k.Ssh", "Reading data from the remote file remote file"), log().records().front());
    EXPECT_THAT(log().text(), Not(HasSubstr("the data")));
    EXPECT_THAT(log().text(), Not(HasSubstr("the error")));
}

TEST_F(SshGet, TellsNothingOfThePathWhileCommandsAreHidden) {
    Ssh& connection = ssh();
    {
        const HiddenCommands hidden(connection, true);
        connection.get(out, err, "secret", counter);
        EXPECT_THAT(log().text(), Not(HasSubstr("secret")));
        EXPECT_THAT(log().text(), HasSubstr("Executing ******** on the remote host"));
    }
    connection.get(out, err, "secret", counter);
    EXPECT_THAT(log().text(), HasSubstr("Executing cat secret on the remote host"));
}

TEST_F(SshGet, NeverHidesAnythingInWhatItStores) {
    script.reads[0] = {{"Sesame-"}, {"4711"}};
    ssh().get(out, err, "remote", counter);
    EXPECT_EQ("Sesame-4711", out.str());
}

TEST_F(SshGet, NeverAsksForMoreThanTheWindowWasOpenedWithSinceAChangeOfKeysWouldLoseData) {
    script.reads[0] = {{std::string(200000, 'x')}};
    ssh().get(out, err, "remote", counter);
    EXPECT_THAT(fake().callsOf("open"), ElementsAre("open session 65536 16384"));
    EXPECT_THAT(fake().callsOf("read"), Each(AnyOf("read 0 65536", "read 1 65536")));
}

TEST_F(SshGet, LetsTheRemoteSideSend4MibAhead) {
    script.window = 65536;
    script.reads[0] = {{std::string(10, 'x')}};
    ssh().get(out, err, "remote", counter);
    EXPECT_THAT(fake().callsOf("adjust"), ElementsAre("adjust 4128768"));
    EXPECT_EQ(4194304U - 10, script.window);
}

TEST_F(SshGet, OpensTheWindowAgainWhenAQuarterOfItIsUsedUp) {
    script.window = 4194304;
    script.reads[0] = {{std::string(1048576, 'x')}, {std::string(65536, 'x')}, {std::string(10, 'x')}};
    ssh().get(out, err, "remote", counter);
    EXPECT_THAT(fake().callsOf("adjust"), ElementsAre("adjust 1114112"));
}

TEST_F(SshGet, ReadsNothingWhileAnAdjustmentOfTheWindowIsUnderWay) {
    script.adjusts = {LIBSSH2_ERROR_EAGAIN, LIBSSH2_ERROR_EAGAIN, LIBSSH2_ERROR_EAGAIN};
    script.reads[0] = {{std::string(10, 'x')}};
    std::vector<std::string> transfers;
    fake().onCall = [&transfers](const std::string& call) {
        if (call.starts_with("adjust") || call.starts_with("read")) {
            transfers.push_back(call);
        }
    };
    EXPECT_EQ(0, ssh().get(out, err, "remote", counter));
    transfers.resize(5);
    EXPECT_THAT(transfers, ElementsAre("adjust 4194304", "adjust 4194304", "adjust 4194304", "adjust 4194304",
                                       "read 1 65536"));
    EXPECT_EQ(std::string(10, 'x'), out.str());
}

TEST_F(SshGet, FailsWhenTheWindowCannotBeAdjusted) {
    script.reads[0] = {{"content"}};
    script.adjusts = {LIBSSH2_ERROR_SOCKET_SEND};
    EXPECT_THROW(ssh().get(out, err, "remote", counter), Exc<&SshConnectionFault>);
}

TEST_F(SshGet, HandsItsDataOnInPiecesOfAtMost65536) {
    script.reads[0] = {{std::string(65536, 'a')}, {std::string(150000, 'b')}};
    ssh().get(out, err, "remote", counter);
    EXPECT_EQ(std::string(65536, 'a') + std::string(150000, 'b'), out.str());
    EXPECT_THAT(counter.sizes, ElementsAre(65536, 65536, 65536, 18928));
}

TEST_F(SshGet, HasAFormThatDropsStandardError) {
    script.reads[0] = {{"content"}};
    script.reads[1] = {{"warning"}};
    EXPECT_EQ(0, ssh().get(out, "remote"));
    EXPECT_EQ("content", out.str());
}

TEST_F(SshGet, FailsWhenTheLastBytesCannotBeFlushed) {
    std::ofstream full("/dev/full");
    script.reads[0] = {{"small"}};
    EXPECT_THROW(ssh().get(full, err, "remote", counter), Exc<&StreamWrite>);
}

using SshGetFile = SshTransfer;

TEST_F(SshGetFile, StoresTheContentAndLogsBothNames) {
    script.reads[0] = {{"content"}};
    EXPECT_EQ(0, ssh().get(dir / "file", err, "remote", counter));
    EXPECT_EQ("content", readFile(dir / "file"));
    EXPECT_EQ(debugRecord("k.Ssh", "Reading data to the file " + (dir / "file")), log().records()[0]);
    EXPECT_EQ(debugRecord("k.Ssh", "Reading data from the remote file remote"), log().records()[1]);
}

TEST_F(SshGetFile, ReplacesWhatWasInTheFile) {
    writeFile(dir / "file", "something much longer");
    script.reads[0] = {{"new"}};
    ssh().get(dir / "file", "remote");
    EXPECT_EQ("new", readFile(dir / "file"));
}

TEST_F(SshGetFile, IsDeletedWhenTheRemoteFileIsMissing) {
    script.reads[1] = {{"cat: remote: No such file or directory\n"}};
    script.exitStatus = 1;
    EXPECT_EQ(1, ssh().get(dir / "file", err, "remote", counter));
    EXPECT_FALSE(std::filesystem::exists(dir / "file"));
    EXPECT_EQ("cat: remote: No such file or directory\n", err.str());
}

TEST_F(SshGetFile, IsCreatedUnderMask022WhateverTheProcessMaskIsWhichIsRestored) {
    const UmaskScope narrow(0777);
    ssh().get(dir / "file", "remote");
    struct stat status {};
    ASSERT_EQ(0, ::stat((dir / "file").c_str(), &status));
    EXPECT_EQ(0644U, status.st_mode & 07777U);
    EXPECT_EQ(mode_t{0777}, ::umask(0777));
}

TEST_F(SshGetFile, RestoresTheProcessMaskAfterAnErrorToo) {
    const UmaskScope narrow(0137);
    script.reads[0] = {FakeRead::failure(LIBSSH2_ERROR_SOCKET_RECV)};
    EXPECT_THROW(ssh().get(dir / "file", "remote"), Exc<&SshConnectionFault>);
    EXPECT_EQ(mode_t{0137}, ::umask(0137));
}

TEST_F(SshGetFile, FailsAtTheFirstChunkWhenItCannotBeOpened) {
    script.reads[0] = {{"content"}};
    EXPECT_THROW(ssh().get(dir / "no/such/directory", "remote"), Exc<&StreamWrite>);
}

TEST_F(SshGetFile, FailsForAnEmptyRemoteFileTooWhenItCannotBeOpened) {
    EXPECT_THROW(ssh().get(dir / "no/such/directory", "remote"), Exc<&StreamWrite>);
}

TEST_F(SshGetFile, FailsOnAFullDiskEvenWithTheLastFewBytes) {
    script.reads[0] = {{"small"}};
    const FileSizeLimit disk(4);
    EXPECT_THROW(ssh().get(dir / "file", "remote"), Exc<&StreamWrite>);
}

TEST_F(SshGetFile, WritesThroughNoLinkThatStandsInItsPlace) {
    writeFile(dir / "target", "old");
    std::filesystem::create_symlink("target", dir / "file");
    script.reads[0] = {{"content"}};
    EXPECT_THROW(ssh().get(dir / "file", "remote"), Exc<&StreamWrite>);
    EXPECT_EQ("old", readFile(dir / "target"));
    EXPECT_TRUE(std::filesystem::is_symlink(dir / "file"));
}

TEST_F(SshGetFile, LeavesALinkThatStandsInItsPlaceWhenTheRemoteFileIsMissing) {
    std::filesystem::create_symlink("target", dir / "file");
    script.exitStatus = 1;
    EXPECT_EQ(1, ssh().get(dir / "file", "remote"));
    EXPECT_TRUE(std::filesystem::is_symlink(dir / "file"));
}

TEST_F(SshGetFile, WaitsForNobodyAtAFifoThatStandsInItsPlace) {
    ASSERT_EQ(0, ::mkfifo((dir / "file").c_str(), 0600));
    EXPECT_THROW(ssh().get(dir / "file", "remote"), Exc<&StreamWrite>);
    EXPECT_TRUE(std::filesystem::is_fifo(dir / "file"));
}

using SshPut = SshTransfer;

TEST_F(SshPut, RunsCatIntoTheQuotedPath) {
    std::istringstream in("content");
    ssh().put(in, "a b");
    EXPECT_THAT(fake().callsOf("exec"), ElementsAre("exec cat > a\\ b"));
    EXPECT_EQ("content", script.input);
}

TEST_F(SshPut, LogsThePathAndNeverTheData) {
    std::istringstream in("the data");
    ssh().put(in, "remote");
    EXPECT_EQ(debugRecord("k.Ssh", "Writing data to the remote file remote"), log().records().front());
    EXPECT_THAT(log().text(), Not(HasSubstr("the data")));
}

TEST_F(SshPut, IgnoresTheStatusButLogsItAsAnError) {
    script.exitStatus = 1;
    script.reads[0] = {{"dropped"}};
    script.reads[1] = {{"dropped"}};
    std::istringstream in("content");
    EXPECT_NO_THROW(ssh().put(in, "remote"));
    EXPECT_EQ(errorRecord("k.Ssh", "Writing to the remote file remote has ended with return code 1"),
              log().records().back());
}

TEST_F(SshPut, SendsALocalFile) {
    writeFile(dir / "file", "content");
    ssh().put(dir / "file", "remote");
    EXPECT_EQ("content", script.input);
    EXPECT_EQ(debugRecord("k.Ssh", "Writing file " + (dir / "file") + " to the remote host"),
              log().records()[0]);
    EXPECT_EQ(debugRecord("k.Ssh", "Writing data to the remote file remote"), log().records()[1]);
}

TEST_F(SshPut, CreatesAnEmptyRemoteFileForALocalFileThatDoesNotExist) {
    EXPECT_NO_THROW(ssh().put(dir / "no such file", "remote"));
    EXPECT_THAT(fake().callsOf("exec"), ElementsAre("exec cat > remote"));
    EXPECT_EQ("", script.input);
    EXPECT_EQ(1U, fake().countOf("send_eof"));
}

TEST_F(SshPut, TellsWhyALocalFileCannotBeOpened) {
    std::filesystem::create_symlink("loop", dir / "loop");
    EXPECT_NO_THROW(ssh().put(dir / "loop", "remote"));
    EXPECT_EQ("", script.input);
    EXPECT_THAT(log().records(), Contains(errorRecord("k.Ssh", "Cannot read " + (dir / "loop") +
                                                                   ": Too many levels of symbolic links")));
}

TEST_F(SshPut, FailsWhereTheLocalFileCannotBeReadOn) {
    EXPECT_THROW(ssh().put("/", "remote"), Exc<&StreamRead>);
}

TEST_F(SshPut, SendsPiecesThatFillThePacketsOfTheLibrary) {
    std::istringstream in(std::string(200000, 'x'));
    ssh().put(in, "remote");
    EXPECT_EQ("write 0 65400", fake().callsOf("write").front());
    EXPECT_EQ(200000U, script.input.size());
}

}  // namespace
}  // namespace korva
