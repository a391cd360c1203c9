// SPDX-License-Identifier: Apache-2.0
#include "commons/filesystem.h"
#include "fakes/fake_accounts.h"
#include "fakes/fake_fsync.h"
#include "session_dir.h"
#include "support/file_size_limit.h"
#include "support/files.h"
#include "support/temp_dir.h"
#include "xml/xml_wrap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/xmlIO.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <iostream>
#include <sstream>

namespace korva {
namespace {

using test::FailingAccountLookup;
using test::FakeFsync;
using test::FakePanelAccount;
using test::FileSizeLimit;
using test::readFile;
using test::SessionDir;
using test::TempDir;
using test::writeFile;
using testing::ElementsAre;
using testing::EndsWith;
using testing::MatchesRegex;

/// Acts as a user without privileges when this process has them.
class WithoutPrivileges {
  public:
    WithoutPrivileges() : user_(::geteuid()) {
        if (user_ == 0 && ::seteuid(kNobody) != 0) {
            ADD_FAILURE() << "cannot give privileges up: " << std::strerror(errno);
        }
    }
    WithoutPrivileges(const WithoutPrivileges&) = delete;
    WithoutPrivileges& operator=(const WithoutPrivileges&) = delete;
    ~WithoutPrivileges() { EXPECT_EQ(::seteuid(user_), 0); }

  private:
    static constexpr uid_t kNobody = 65534;
    uid_t user_;
};

class SmallDocument : public tXmlDvxDocument {
  public:
    SmallDocument() { initNewDoc("small"); }
};

/// Larger than the buffers of libxml2 and of stdio.
class LargeDocument : public tXmlDvxDocument {
  public:
    explicit LargeDocument(std::size_t size = 100000) {
        initNewDoc("large");
        newText(root(), std::string(size, 'x'));
    }
};

constexpr const char* kSmall = "<?xml version=\"1.0\"?>\n<small/>\n";

template <ErrorKind (*Tag)(bool), typename Body>
std::string messageOf(Body body) {
    try {
        body();
    } catch (const Exc<Tag>& error) {
        return error.what();
    }
    return "no such error";
}

mode_t modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
}

/// ASCII text as little-endian UTF-16 with its mark.
std::string utf16(const std::string& text) {
    std::string wide = "\xFF\xFE";
    for (const char c : text) {
        wide += c;
        wide += '\0';
    }
    return wide;
}

TEST(SaveXml, WritesTheBytesThatLibxml2Writes) {
    const TempDir dir;
    const std::vector<std::string> texts{
        "<a/>",
        "<a>\n  <b>1</b>\n  <c/></a>",
        "<a>\xC3\xA9</a>",
        "<?xml version='1.0' encoding='UTF-8'?><a>\xC3\xA9</a>",
        "<?xml version='1.0' encoding='ISO-8859-1' standalone='yes'?><a b='\xE9'>\xE9&#x20AC;</a>",
        utf16("<?xml version='1.0' encoding='UTF-16'?><a/>"),
        "<!DOCTYPE a SYSTEM 'a.dtd' [<!ELEMENT a ANY>]><a/>",
        "<!-- c --><?pi x?><a><![CDATA[]]]]><![CDATA[>]]>&lt;&#13;</a>",
        "<html xmlns='http://www.w3.org/1999/xhtml'><br/></html>",
    };
    for (const std::string& text : texts) {
        const tXmlDocument document(text);
        document.saveToFile(dir / "ours");
        ASSERT_GE(xmlSaveFile((dir / "libxml2s").c_str(), document.doc().get()), 0);
        EXPECT_EQ(readFile(dir / "ours"), readFile(dir / "libxml2s")) << text;
    }
}

TEST(SaveXml, WritesALargeDocumentWhole) {
    const TempDir dir;
    LargeDocument(3000000).saveToFile(dir / "large.xml");
    EXPECT_EQ(readFile(dir / "large.xml"),
              "<?xml version=\"1.0\"?>\n<large>" + std::string(3000000, 'x') + "</large>\n");
}

TEST(SaveXml, ReplacesALongerFile) {
    const TempDir dir;
    writeFile(dir / "small.xml", std::string(10000, 'y'));
    SmallDocument().saveToFile((dir / "small.xml").c_str());
    EXPECT_EQ(readFile(dir / "small.xml"), kSmall);
}

TEST(SaveXml, AssertsThatThereIsAName) {
    EXPECT_EQ(
        messageOf<&AssertionFailed>([] { SmallDocument().saveToFile(static_cast<const char*>(nullptr)); }),
        "Assertion failed: filename != NULL");
    EXPECT_EQ(messageOf<&AssertionFailed>([] { SmallDocument().saveToFile(""); }),
              "Assertion failed: *filename != 0");
}

TEST(SaveXml, NamesTheFileThatCannotBeOpened) {
    const TempDir dir;
    const std::string name = dir / "missing/small.xml";
    EXPECT_EQ(messageOf<&tError_SaveFile>([&] { SmallDocument().saveToFile(name); }),
              "Can not save the XML document to file '" + name + "'");
}

TEST(SaveXml, FailsOnAFullDiskWhateverTheSizeOfTheDocument) {
    for (const std::size_t size : {1UL, 3000UL, 4000UL, 4096UL, 5000UL, 100000UL}) {
        EXPECT_THROW(LargeDocument(size).saveToFile("/dev/full"), Exc<&tError_SaveFile>) << size;
    }
}

TEST(SaveXml, FailsWhenOnlyTheLastBytesFindNoPlace) {
    const TempDir dir;
    const LargeDocument document(5000);
    document.saveToFile(dir / "fits.xml");
    const FileSizeLimit limit(std::filesystem::file_size(dir / "fits.xml") - 1);
    EXPECT_THROW(document.saveToFile(dir / "large.xml"), Exc<&tError_SaveFile>);
}

TEST(SaveXml, FailsForAnEncodingThatCannotBeWritten) {
    const TempDir dir;
    const SmallDocument document;
    document.doc()->encoding = xmlStrdup(reinterpret_cast<const xmlChar*>("nosuch"));
    testing::internal::CaptureStderr();
    EXPECT_THROW(document.saveToFile(dir / "small.xml"), Exc<&tError_SaveFile>);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(SaveXml, GoesToAStream) {
    std::ostringstream stream;
    SmallDocument().saveToStream(stream);
    EXPECT_EQ(stream.str(), kSmall);
}

TEST(SaveXml, NoticesAStreamThatFails) {
    std::ostringstream stream;
    stream.setstate(std::ios::badbit);
    EXPECT_THROW(SmallDocument().saveToStream(stream), Exc<&tError_SaveFile>);
}

TEST(SaveXml, GoesToStandardOutput) {
    testing::internal::CaptureStdout();
    SmallDocument().saveToStdout();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), kSmall);
}

int appendBytes(void* context, const char* bytes, int count) {
    static_cast<std::string*>(context)->append(bytes, static_cast<std::size_t>(count));
    return count;
}

int refuseBytes(void* /*context*/, const char* /*bytes*/, int /*count*/) {
    return -1;
}

TEST(SaveXml, GoesToABufferOfLibxml2) {
    std::string bytes;
    SmallDocument().saveToBuffer(xmlOutputBufferCreateIO(&appendBytes, nullptr, &bytes, nullptr));
    EXPECT_EQ(bytes, kSmall);
}

TEST(SaveXml, NoticesABufferThatFails) {
    testing::internal::CaptureStderr();
    EXPECT_THROW(
        SmallDocument().saveToBuffer(xmlOutputBufferCreateIO(&refuseBytes, nullptr, nullptr, nullptr)),
        Exc<&tError_SaveFile>);
    EXPECT_THROW(SmallDocument().saveToBuffer(nullptr), Exc<&tError_SaveFile>);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(SaveXmlAtomically, LeavesOneFileOfMode0600) {
    const TempDir dir;
    const FakePanelAccount account(::geteuid(), ::getegid());
    SmallDocument().saveToFileAtomically(dir / "small.xml", Durability::kCached);
    EXPECT_EQ(readFile(dir / "small.xml"), kSmall);
    EXPECT_EQ(modeOf(dir / "small.xml"), 0600);
    EXPECT_THAT(SessionDir::filesIn(dir.path()), ElementsAre("small.xml"));
}

TEST(SaveXmlAtomically, GivesTheFileToThePanelsAccount) {
    const TempDir dir;
    // Only the superuser can give files away; anybody else can at least give one to himself.
    const uid_t uid = ::geteuid() == 0 ? 4711 : ::geteuid();
    const gid_t gid = ::geteuid() == 0 ? 4712 : ::getegid();
    const FakePanelAccount account(uid, gid);
    SmallDocument().saveToFileAtomically(dir / "small.xml", Durability::kCached);
    struct stat status {};
    ASSERT_EQ(::stat((dir / "small.xml").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, uid);
    EXPECT_EQ(status.st_gid, gid);
}

TEST(SaveXmlAtomically, ReplacesTheOldDocumentAsANewFile) {
    const TempDir dir;
    const FakePanelAccount account(::geteuid(), ::getegid());
    writeFile(dir / "small.xml", "old");
    std::filesystem::create_hard_link(dir / "small.xml", dir / "reader");
    SmallDocument().saveToFileAtomically(dir / "small.xml", Durability::kCached);
    EXPECT_EQ(readFile(dir / "small.xml"), kSmall);
    EXPECT_EQ(readFile(dir / "reader"), "old");
}

class Uppercase : public SmallDocument {
  public:
    using tXmlDvxDocument::saveToFile;
    void saveToFile(const char* fileName) const override { writeFile(fileName, "<SMALL/>"); }
};

TEST(SaveXmlAtomically, LetsADerivedDocumentChangeHowItIsWritten) {
    const TempDir dir;
    const FakePanelAccount account(::geteuid(), ::getegid());
    Uppercase().saveToFileAtomically(dir / "small.xml", Durability::kCached);
    EXPECT_EQ(readFile(dir / "small.xml"), "<SMALL/>");
}

/// Somebody else who may write in the directory acts before and after the document is written.
class Disturbed : public SmallDocument {
  public:
    using tXmlDvxDocument::saveToFile;
    void saveToFile(const char* fileName) const override {
        before(fileName);
        SmallDocument::saveToFile(fileName);
        after(fileName);
    }
    std::function<void(const std::string& fileName)> before = [](const std::string&) {};
    std::function<void(const std::string& fileName)> after = [](const std::string&) {};
};

TEST(SaveXmlAtomically, DoesNotFollowALinkInThePlaceOfTheTemporaryFile) {
    const TempDir dir;
    const FakePanelAccount account(::geteuid(), ::getegid());
    writeFile(dir / "precious", "precious");
    Disturbed document;
    document.before = [&](const std::string& fileName) {
        std::filesystem::remove(fileName);
        std::filesystem::create_symlink(dir / "precious", fileName);
    };
    EXPECT_THROW(document.saveToFileAtomically(dir / "small.xml", Durability::kFlushed),
                 Exc<&tError_SaveFile>);
    EXPECT_EQ(readFile(dir / "precious"), "precious");
    EXPECT_FALSE(std::filesystem::exists(dir / "small.xml"));
}

TEST(SaveXmlAtomically, DoesNotWaitForTheReaderOfAFifoInThePlaceOfTheTemporaryFile) {
    const TempDir dir;
    const FakePanelAccount account(::geteuid(), ::getegid());
    Disturbed document;
    document.before = [](const std::string& fileName) {
        std::filesystem::remove(fileName);
        ASSERT_EQ(::mkfifo(fileName.c_str(), 0600), 0);
    };
    EXPECT_THROW(document.saveToFileAtomically(dir / "small.xml", Durability::kFlushed),
                 Exc<&tError_SaveFile>);
}

TEST(SaveXmlAtomically, DoesNotFlushThroughALinkOrWaitForTheWriterOfAFifo) {
    const TempDir dir;
    const FakePanelAccount account(::geteuid(), ::getegid());
    Disturbed document;
    document.after = [](const std::string& fileName) {
        std::filesystem::remove(fileName);
        ASSERT_EQ(::mkfifo(fileName.c_str(), 0600), 0);
    };
    document.saveToFileAtomically(dir / "small.xml", Durability::kFlushed);
    document.after = [&](const std::string& fileName) {
        std::filesystem::remove(fileName);
        std::filesystem::create_symlink(dir / "nowhere", fileName);
    };
    EXPECT_THROW(document.saveToFileAtomically(dir / "other.xml", Durability::kFlushed),
                 Exc<&tError_SaveFile>);
}

TEST(SaveXmlAtomically, FailsWithoutThePanelsAccountAndLeavesTheTemporaryFile) {
    const TempDir dir;
    writeFile(dir / "small.xml", "old");
    const std::string message = messageOf<&CantTakeFileOwnership>(
        [&] { SmallDocument().saveToFileAtomically(dir / "small.xml", Durability::kFlushed); });
    EXPECT_THAT(message, MatchesRegex("Cannot take ownership of " + (dir / "small.xml") +
                                      "......: There is no account ovnadm"));
    EXPECT_EQ(readFile(dir / "small.xml"), "old");
    const std::vector<std::string> files = SessionDir::filesIn(dir.path());
    ASSERT_EQ(files.size(), 2U);
    EXPECT_EQ(readFile(dir / files[1]), kSmall);
}

TEST(SaveXmlAtomically, SaysNoAccountForEveryErrorCodeThatMeansIt) {
    const TempDir dir;
    for (const int error : {ENOENT, ESRCH}) {
        const FailingAccountLookup lookup(error);
        EXPECT_THAT(messageOf<&CantTakeFileOwnership>([&] {
                        SmallDocument().saveToFileAtomically(dir / "small.xml", Durability::kCached);
                    }),
                    EndsWith(": There is no account ovnadm"));
    }
}

TEST(SaveXmlAtomically, TellsWhyTheAccountCannotBeLookedUp) {
    const TempDir dir;
    const FailingAccountLookup lookup(EMFILE);
    EXPECT_THAT(messageOf<&CantTakeFileOwnership>(
                    [&] { SmallDocument().saveToFileAtomically(dir / "small.xml", Durability::kCached); }),
                EndsWith(": Too many open files"));
}

TEST(SaveXmlAtomically, FailsWithoutPrivilegesAndLeavesTheTemporaryFile) {
    const TempDir dir;
    ASSERT_EQ(::chmod(dir.path().c_str(), 0777), 0);
    const FakePanelAccount account(0, 0);
    std::string message;
    {
        const WithoutPrivileges user;
        message = messageOf<&CantTakeFileOwnership>(
            [&] { SmallDocument().saveToFileAtomically(dir / "small.xml", Durability::kCached); });
    }
    EXPECT_THAT(message, MatchesRegex("Cannot take ownership of " + (dir / "small.xml") +
                                      "......: Operation not permitted"));
    EXPECT_THAT(SessionDir::filesIn(dir.path()), ElementsAre(MatchesRegex("small.xml......")));
}

TEST(SaveXmlAtomically, FailsOnAFullDiskAndLeavesTheOldDocumentAndTheTemporaryFile) {
    const TempDir dir;
    const FakePanelAccount account(::geteuid(), ::getegid());
    writeFile(dir / "large.xml", "old");
    std::string message;
    {
        const FileSizeLimit limit(4096);
        message = messageOf<&tError_SaveFile>(
            [&] { LargeDocument(5000).saveToFileAtomically(dir / "large.xml", Durability::kCached); });
    }
    EXPECT_THAT(message,
                MatchesRegex("Can not save the XML document to file '" + (dir / "large.xml") + "......'"));
    EXPECT_EQ(readFile(dir / "large.xml"), "old");
    EXPECT_THAT(SessionDir::filesIn(dir.path()), ElementsAre("large.xml", MatchesRegex("large.xml......")));
}

TEST(SaveXmlAtomically, FailsWhenTheTargetIsADirectoryAndLeavesTheTemporaryFile) {
    const TempDir dir;
    const FakePanelAccount account(::geteuid(), ::getegid());
    std::filesystem::create_directory(dir / "small.xml");
    EXPECT_THAT(messageOf<&CantRenameFile>(
                    [&] { SmallDocument().saveToFileAtomically(dir / "small.xml", Durability::kCached); }),
                MatchesRegex("Cannot rename " + (dir / "small.xml") + "...... to " + (dir / "small.xml") +
                             ": Is a directory"));
    EXPECT_THAT(SessionDir::filesIn(dir.path()), ElementsAre(MatchesRegex("small.xml......")));
}

TEST(SaveXmlAtomically, FailsWhereNoTemporaryFileCanBeMade) {
    const TempDir dir;
    EXPECT_THROW(SmallDocument().saveToFileAtomically(dir / "missing/small.xml", Durability::kCached),
                 Exc<&CantCreateTempFile>);
}

TEST(SaveXmlAtomically, FlushesTheFileBeforeTheRenameAndTheDirectoryAfterItOnceEach) {
    const TempDir dir;
    const FakePanelAccount account(::geteuid(), ::getegid());
    FakeFsync fsync;
    fsync.onFlush = [&](const std::string& name) {
        EXPECT_EQ(std::filesystem::exists(dir / "small.xml"), name == dir.path()) << name;
    };
    SmallDocument().saveToFileAtomically(dir / "small.xml", Durability::kFlushed);
    EXPECT_THAT(FakeFsync::flushed(), ElementsAre(MatchesRegex((dir / "small.xml") + "......"), dir.path()));
}

TEST(SaveXmlAtomically, DoesNotWaitForTheDiskWhenTheNextSaveComesSoon) {
    const TempDir dir;
    const FakePanelAccount account(::geteuid(), ::getegid());
    const FakeFsync fsync;
    SmallDocument().saveToFileAtomically(dir / "small.xml", Durability::kCached);
    EXPECT_THAT(FakeFsync::flushed(), ElementsAre());
}

TEST(SaveXmlAtomically, FailsWhenTheDiskRefusesTheDataWithTheReasonOfTheSystem) {
    const TempDir dir;
    const FakePanelAccount account(::geteuid(), ::getegid());
    writeFile(dir / "small.xml", "old");
    const FakeFsync fsync(EIO);
    try {
        SmallDocument().saveToFileAtomically(dir / "small.xml", Durability::kFlushed);
        FAIL() << "no error";
    } catch (const Exc<&tError_SaveFile>& error) {
        const std::string unfinished = (dir / "small.xml") + "......";
        EXPECT_THAT(error.what(), MatchesRegex("Can not save the XML document to file '" + unfinished + "'"));
        ASSERT_NE(error.inner(), nullptr);
        EXPECT_THAT(error.inner()->what(),
                    MatchesRegex("Cannot flush " + unfinished + ": Input/output error"));
    }
    EXPECT_EQ(readFile(dir / "small.xml"), "old");
}

TEST(SaveXmlAtomically, FailsWhenTheDiskRefusesTheDirectoryWithTheReasonOfTheSystem) {
    const TempDir dir;
    const FakePanelAccount account(::geteuid(), ::getegid());
    FakeFsync fsync;
    fsync.onFlush = [&](const std::string& name) { fsync.error = name == dir.path() ? ENOSPC : 0; };
    try {
        SmallDocument().saveToFileAtomically(dir / "small.xml", Durability::kFlushed);
        FAIL() << "no error";
    } catch (const Exc<&tError_SaveFile>& error) {
        EXPECT_EQ(error.what(), "Can not save the XML document to file '" + (dir / "small.xml") + "'");
        ASSERT_NE(error.inner(), nullptr);
        EXPECT_EQ(error.inner()->what(), "Cannot flush " + dir.path() + ": No space left on device");
    }
}

}  // namespace
}  // namespace korva
