// SPDX-License-Identifier: Apache-2.0
#include "tallowick/retrieve_content.h"

#include "commons/checksum.h"
#include "commons/descriptor.h"
#include "commons/filesystem.h"
#include "commons/stream_errors.h"
#include "fakes/fake_accounts.h"
#include "fakes/fake_fsync.h"
#include "ssh/libssh2pp.h"
#include "support/fake_clock.h"
#include "support/fake_flock.h"
#include "support/file_size_limit.h"
#include "support/thrown_errors.h"
#include "unit/tallowick/agent_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

std::optional<std::uint64_t> freeBytes;

}  // namespace

// The linker gives calls of statfs64 to __wrap_statfs64, and calls of __real_statfs64 to statfs64 (ld's
// --wrap).
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
int __real_statfs64(const char* path, struct statfs64* statistics);

int __wrap_statfs64(const char* path, struct statfs64* statistics) {
    const int result = __real_statfs64(path, statistics);
    if (freeBytes) {
        statistics->f_bsize = 1;
        statistics->f_bavail = *freeBytes;
    }
    return result;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
}

namespace korva {
namespace {

namespace fs = std::filesystem;

using test::beforeFlock;
using test::ErrorRecord;
using test::errorsOf;
using test::FileSizeLimit;
using test::isError;
using test::readFile;
using test::writeFile;
using testing::_;
using testing::AllOf;
using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr const char* kList = "perl /agent/run.pl --get-content-list";

std::string sumOf(const std::string& content) {
    return countMd5Sum(content);
}

std::string upper(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return text;
}

std::string repeated(const std::string& piece, int count) {
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += piece;
    }
    return text;
}

class RetrieveContent : public test::AgentFixture {
  protected:
    RetrieveContent() {
        action.setConfig(&cfg);
        status.calls.clear();
    }
    ~RetrieveContent() override {
        freeBytes.reset();
        beforeFlock = nullptr;
    }

    /// What the agent answers to the request for its list.
    void answer(const std::string& text) { result(kList).out = text; }
    static std::string list(const std::string& total, const std::string& entries) {
        return "<?xml version='1.0'?>\n<contentlist size='" + total + "' unpacked='0'>" + entries +
               "</contentlist>\n";
    }
    static std::string entry(const std::string& name, const std::string& attributes) {
        return "<file " + attributes + ">" + name + "</file>";
    }
    /// Lists files with their sizes and sums, and has them on the source host.
    void offer(const std::vector<std::pair<std::string, std::string>>& files) {
        std::string entries;
        std::size_t total = 0;
        for (const auto& [name, content] : files) {
            entries +=
                entry(name, "size='" + std::to_string(content.size()) + "' md5sum='" + sumOf(content) + "'");
            total += content.size();
            remote(name).out = content;
        }
        answer(list(std::to_string(total), entries));
    }
    /// Lists one file with other attributes than its own.
    void offerAs(const std::string& attributes, const std::string& name, const std::string& content) {
        answer(list("0", entry(name, attributes)));
        remote(name).out = content;
    }
    static std::string get(const std::string& name) { return "get /agent/" + name; }
    static std::string rm(const std::string& name) { return inAgentDir("rm " + sh_quote("/agent/" + name)); }
    test::FakeResult& remote(const std::string& name) { return ssh.results[get(name)]; }
    /// The commands behind the request for the list.
    std::vector<std::string> transfers() const {
        std::vector<std::string> lines = ssh.lines();
        lines.erase(lines.begin());
        return lines;
    }

    std::vector<ErrorRecord> failure() {
        return errorsOf([this] { action.execute(); });
    }
    template <typename... Causes>
    static auto loopFailure(Causes... causes) {
        return ElementsAre(isError("CantRetrieveDump", "Error during dump retrieval"), causes...);
    }
    auto fileFailure(const std::string& name, const std::string& reason) const {
        return loopFailure(isError("CantRetrieveContentFile", "Failed to retrieve file '" + name +
                                                                  "' from 'source.example' to '" +
                                                                  inSession(name) + "': " + reason));
    }
    static auto listFailure(const std::string& reason) {
        return ElementsAre(
            isError("CantRetrieveContentList", "Error during content list retrieval: " + reason));
    }
    void useDumpsDir() {
        cfg.dumps_dir = dir / "dumps";
        fs::create_directory(cfg.dumps_dir);
    }

    RetrieveContentAction action;
};

TEST_F(RetrieveContent, FetchesEachListedFileAndThenRemovesItFromTheSourceHost) {
    offer({{"a b", "first"}, {"sub/c", "second"}});
    action.execute();
    EXPECT_THAT(ssh.lines(), ElementsAre("sh -c cd\\ /agent\\;\\ perl\\ /agent/run.pl\\ --get-content-list",
                                         "get /agent/a b", "sh -c cd\\ /agent\\;\\ rm\\ /agent/a\\\\\\ b",
                                         "get /agent/sub/c", "sh -c cd\\ /agent\\;\\ rm\\ /agent/sub/c"));
    EXPECT_EQ("first", readFile(inSession("a b")));
    EXPECT_EQ("second", readFile(inSession("sub/c")));
    EXPECT_EQ(inSession("dump.xml"), readFile(inSession("dump-name")));
    EXPECT_EQ(inSession("migration.result"), readFile(inSession("migration-result-name")));
    EXPECT_THAT(sessionFiles(), ElementsAre("a b", "dump-name", "migration-result-name"));
    EXPECT_THAT(debugLog.errors, IsEmpty());
}

TEST_F(RetrieveContent, TellsItsProgress) {
    const test::FakeClock clock;
    offer({{"a", "12345"}, {"b", "123"}});
    result(kList).meanwhile = [this] {
        EXPECT_THAT(status.calls, ElementsAre("agent params source.example", "transfer dump", "save"));
        status.calls.clear();
    };
    action.execute();
    EXPECT_THAT(status.calls, ElementsAre("transfer totals 2 8", "save",                               //
                                          "current file a 5", "transfer speed 0", "size left 3",       //
                                          "current file size left 0", "save", "files left 1", "save",  //
                                          "current file b 3", "transfer speed 0", "size left 0",       //
                                          "current file size left 0", "save", "files left 0", "save"));
}

TEST_F(RetrieveContent, FetchesNothingOfAnEmptyListButWritesBothNameRecords) {
    answer(list("0", ""));
    action.execute();
    EXPECT_THAT(transfers(), IsEmpty());
    EXPECT_THAT(status.calls, Contains("transfer totals 0 0"));
    EXPECT_THAT(sessionFiles(), ElementsAre("dump-name", "migration-result-name"));
}

TEST_F(RetrieveContent, AsksAnAgentForItsListWithItsOwnInterpreter) {
    cfg.agent_name = "snake";
    result("python3 /agent/run.py --get-content-list").out = list("0", "");
    action.execute();
    EXPECT_EQ("", ssh.commands.at(0).input);
    EXPECT_FALSE(ssh.commands[0].quietOutput);
    EXPECT_FALSE(ssh.commands[0].quietInput);
}

TEST_F(RetrieveContent, AsksAndRemovesAsRootWithSudoButFetchesAsTheLoginUser) {
    useSudo("sudo word");
    offer({{"a", "content"}});
    ssh.results[asRoot(kList)] = result(kList);
    action.execute();
    EXPECT_THAT(ssh.lines(), ElementsAre("sudo -V", "sudo -k; sudo -S -p ' ' true", asRoot(kList), get("a"),
                                         asRoot("rm /agent/a")));
    EXPECT_EQ("sudo word\n", ssh.commands[2].input);
}

using ContentListRetrieval = RetrieveContent;

TEST_F(ContentListRetrieval, FailsWithTheErrorOutputOfTheAgent) {
    result(kList) = {1, list("0", ""), "died at line 1."};
    EXPECT_THAT(failure(), listFailure("died at line 1."));
    EXPECT_THAT(sessionFiles(), IsEmpty());
}

TEST_F(ContentListRetrieval, FailsForAnUnknownAgentWithoutAConnection) {
    cfg.agent_name = "unknown";
    EXPECT_THAT(failure(), ElementsAre(isError("AgentNotFound", _)));
    EXPECT_THAT(ssh.connections, IsEmpty());
}

TEST_F(ContentListRetrieval, FailsForWhatIsNoList) {
    answer("");
    EXPECT_THAT(failure(), ElementsAre(isError("AssertionFailed", _)));
    answer("nonsense");
    EXPECT_THAT(failure(), ElementsAre(isError("tError_ParseFile", HasSubstr("nonsense"))));
    answer("<other/>");
    EXPECT_THAT(failure(), ElementsAre(isError("tError_WrongDoc", _)));
    answer("<contentlist/>");
    EXPECT_THAT(failure(), ElementsAre(isError("NoSuchAttribute", _)));
}

TEST_F(ContentListRetrieval, FailsForATotalThatIsNoNumberOfBytes) {
    cfg.no_check_space = true;
    for (const char* total : {"-1", "abc", "", "1.5", " 1", "9223372036854775808", "18446744073709551615",
                              "18446744073709551616"}) {
        answer(list(total, entry("a", "size='1'")));
        EXPECT_THAT(failure(), listFailure("the total size is not a number of bytes")) << total;
    }
    EXPECT_THAT(ssh.lines(), Each(inAgentDir(kList)));
}

TEST_F(ContentListRetrieval, TakesTheLargestTotalThatThereCanBe) {
    cfg.no_check_space = true;
    answer(list("9223372036854775807", ""));
    action.execute();
    EXPECT_THAT(status.calls, Contains("transfer totals 0 9223372036854775807"));
}

TEST_F(ContentListRetrieval, FailsForANegativeFileSizeBeforeAnythingIsFetched) {
    answer(list("1", entry("a", "size='1'") + entry("b", "size='-1'")));
    EXPECT_THAT(failure(), listFailure("the size of 'b' is negative"));
    EXPECT_THAT(transfers(), IsEmpty());
}

TEST_F(ContentListRetrieval, FailsForAFileSizeThatIsNoNumberOfBytes) {
    for (const char* size : {"abc", "", "1.5", "9223372036854775808"}) {
        answer(list("1", entry("a", "size='1'") + entry("b", std::string("size='") + size + "'")));
        EXPECT_THAT(failure(), listFailure("the size of a file is not a number of bytes")) << size;
    }
    EXPECT_THAT(ssh.lines(), Each(inAgentDir(kList)));
}

TEST_F(ContentListRetrieval, HidesPasswordsInTheErrorForWhatIsNoList) {
    cfg.sudo_password = "sudo word";
    // The parser quotes the end of a long line only, so a password may be cut in its message.
    for (const std::string& text :
         {std::string("login word, sudo word"), std::string("<login word, sudo word>"),
          "login word " + std::string(78, 'x') + "<"}) {
        answer(text);
        const std::vector<ErrorRecord> errors = failure();
        ASSERT_EQ(1U, errors.size());
        EXPECT_EQ("tError_ParseFile", errors[0].code);
        EXPECT_THAT(errors[0].message, AllOf(Not(HasSubstr("ogin")), Not(HasSubstr("word")))) << text;
    }
}

TEST_F(ContentListRetrieval, QuotesNothingOfWhatIsNoListAndNotInUtf8) {
    cfg.password = "Sesame";
    const std::string utf7 = "<?xml version='1.0' encoding='UTF-7'?>";
    std::string utf16 = "\xFF\xFE";
    for (const char c : std::string("<Sesame/>")) {
        utf16 += {c, '\0'};
    }
    for (const std::string& text : {utf16, utf7 + "<contentlist>Ses+AGE-me</x>"}) {
        answer(text);
        EXPECT_THAT(failure(), listFailure("the list is not well-formed, and not in UTF-8"));
    }
}

TEST_F(ContentListRetrieval, ReadsAListThatIsNotInUtf8) {
    answer("<?xml version='1.0' encoding='ISO-8859-1'?><contentlist size='0' unpacked='0'/>");
    EXPECT_THAT(failure(), IsEmpty());
}

TEST_F(ContentListRetrieval, HidesAPasswordInTheErrorForAnotherDocument) {
    cfg.password = "Sesame";
    answer("<Sesame/>");
    const std::vector<ErrorRecord> errors = failure();
    ASSERT_EQ(1U, errors.size());
    EXPECT_THAT(errors[0].message, Not(HasSubstr("Sesame")));
}

TEST_F(ContentListRetrieval, HidesAPasswordThatAloneMakesTheListUnreadable) {
    cfg.password = "Sesame<&";
    answer(list("0", "Sesame<&"));
    EXPECT_THAT(failure(), listFailure("the list is not well-formed"));
    answer(list("0", entry("Sesame<&", "size='none'")));
    EXPECT_THAT(failure(), listFailure("the size of a file is not a number of bytes"));
}

using ContentSpace = RetrieveContent;

TEST_F(ContentSpace, IsEnoughWhenItIsJustAsMuchAsIsNeeded) {
    freeBytes = 7;
    offer({{"a", "content"}});
    EXPECT_THAT(failure(), IsEmpty());
}

TEST_F(ContentSpace, IsTooLittleByOneByte) {
    freeBytes = 6;
    offer({{"a", "content"}});
    EXPECT_THAT(failure(), ElementsAre(isError("NotEnoughSpace",
                                               "Selected filesystem has only 6 free space, but 7 is needed "
                                               "for operation")));
    EXPECT_THAT(transfers(), IsEmpty());
    EXPECT_THAT(status.calls, Not(Contains(StartsWith("transfer totals"))));
}

TEST_F(ContentSpace, MayBeLargerThanSignedNumbersTell) {
    freeBytes = std::numeric_limits<std::uint64_t>::max();
    offer({{"a", "content"}});
    EXPECT_THAT(failure(), IsEmpty());
}

TEST_F(ContentSpace, IsNotLookedAtWhenThatIsNotWanted) {
    freeBytes = 0;
    cfg.no_check_space = true;
    offer({{"a", "content"}});
    action.execute();
    EXPECT_EQ("content", readFile(inSession("a")));
}

TEST_F(ContentSpace, IsUnknownForADumpsDirectoryThatIsMissing) {
    offer({{"a", "content"}});
    cfg.dumps_dir = dir / "missing";
    EXPECT_THAT(failure(),
                ElementsAre(isError("CantStatFS", "Cannot stat filesystem containing " + cfg.dumps_dir +
                                                      ": No such file or directory")));
    EXPECT_FALSE(fs::exists(cfg.dumps_dir));
    cfg.no_check_space = true;
    action.execute();
    EXPECT_EQ("content", readFile(dir / "missing/a"));
}

using ContentFile = RetrieveContent;

TEST_F(ContentFile, IsNotFetchedWhenItIsHereButStillRemovedFromTheSourceHost) {
    offer({{"a", "content"}});
    writeFile(inSession("a"), "content");
    action.execute();
    EXPECT_THAT(transfers(), ElementsAre(rm("a")));
    EXPECT_THAT(status.calls, Contains("files left 0"));
}

TEST_F(ContentFile, ReplacesOneThatHasAnotherSum) {
    offer({{"a", "content"}});
    writeFile(inSession("a"), "CONTENT");
    action.execute();
    EXPECT_THAT(transfers(), ElementsAre(get("a"), rm("a")));
    EXPECT_EQ("content", readFile(inSession("a")));
}

TEST_F(ContentFile, IsAlwaysFetchedWithoutASum) {
    for (const char* attributes : {"size='7'", "size='7' md5sum=''"}) {
        offerAs(attributes, "a", "content");
        writeFile(inSession("a"), "content");
        ssh.commands.clear();
        action.execute();
        EXPECT_THAT(transfers(), ElementsAre(get("a"), rm("a")));
    }
}

/// Tells whether a file that exists is opened by anybody.
class WatchedFile {
  public:
    explicit WatchedFile(const std::string& path) : events_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        EXPECT_GE(inotify_add_watch(events_.fd(), path.c_str(), IN_OPEN), 0);
    }
    bool wasOpened() const {
        std::array<char, 4096> events;
        return ::read(events_.fd(), events.data(), events.size()) > 0;
    }

  private:
    Descriptor events_;
};

TEST_F(ContentFile, WithoutASumIsNotComparedWithWhatIsHere) {
    fs::create_directory(inSession("x"));
    writeFile(inSession("a"), "content");
    for (const auto& [attributes, opened] :
         {std::pair("size='7'", false), std::pair("size='7' md5sum=''", false),
          std::pair("size='7' md5sum='0'", true)}) {
        offerAs(attributes, "x/a", "content");
        const WatchedFile file(inSession("a"));
        action.execute();
        EXPECT_EQ(opened, file.wasOpened()) << attributes;
    }
}

TEST_F(ContentFile, IsFetchedOnceMoreWhenItsSumIsWrittenInAnotherCaseAndThenAccepted) {
    offerAs("size='7' md5sum='" + upper(sumOf("content")) + "'", "a", "content");
    writeFile(inSession("a"), "content");
    action.execute();
    EXPECT_THAT(transfers(), ElementsAre(get("a"), rm("a")));
    EXPECT_THAT(debugLog.errors, IsEmpty());
}

TEST_F(ContentFile, StaysOnTheSourceHostWhenItsSumIsWrongAndTheRunGoesOn) {
    answer(list("0", entry("a", "md5sum='" + sumOf("content") + "'") + entry("b", "")));
    remote("a").out = "CONTENT";
    action.execute();
    EXPECT_THAT(transfers(), ElementsAre(get("a"), get("b"), rm("b")));
    EXPECT_EQ("CONTENT", readFile(inSession("a")));
    EXPECT_THAT(debugLog.errors, ElementsAre("File '/agent/a' is not what the content list says: " +
                                             sumOf("CONTENT") + " instead of " + sumOf("content")));
    EXPECT_THAT(debugLog.severities, ElementsAre(4));
    EXPECT_THAT(status.calls, Contains("files left 0"));
    EXPECT_EQ(inSession("dump.xml"), readFile(inSession("dump-name")));
}

TEST_F(ContentFile, IsJudgedByItsSumAloneWhenTheListGivesOne) {
    offerAs("size='1000' md5sum='" + sumOf("content") + "'", "a", "content");
    action.execute();
    EXPECT_THAT(transfers(), ElementsAre(get("a"), rm("a")));
}

TEST_F(ContentFile, StaysOnTheSourceHostWhenItsSizeIsWrongAndThereIsNoSum) {
    offerAs("size='8'", "a", "content");
    action.execute();
    EXPECT_THAT(transfers(), ElementsAre(get("a")));
    EXPECT_EQ("content", readFile(inSession("a")));
    EXPECT_THAT(debugLog.errors,
                ElementsAre("File '/agent/a' is not what the content list says: 7 bytes instead of 8 bytes"));
    EXPECT_THAT(debugLog.severities, ElementsAre(4));
}

TEST_F(ContentFile, IsTakenAsItComesWithoutSumAndSize) {
    offerAs("", "a", "content");
    action.execute();
    EXPECT_THAT(transfers(), ElementsAre(get("a"), rm("a")));
}

TEST_F(ContentFile, ThatIsListedAsEmptyStaysOnTheSourceHostWhenItIsNot) {
    offerAs("size='0'", "a", "content");
    action.execute();
    EXPECT_THAT(transfers(), ElementsAre(get("a")));
    EXPECT_THAT(debugLog.errors,
                ElementsAre("File '/agent/a' is not what the content list says: 7 bytes instead of 0 bytes"));
}

TEST_F(ContentFile, ShowsNoPasswordThatTheSourceHostListsAsItsName) {
    cfg.password = "Sesame-1";
    answer(list("0", entry("Sesame-1", "") + entry("../Sesame-1", "")));
    remote("Sesame-1").out = "content";
    result("rm " + sh_quote("/agent/Sesame-1")).status = 1;
    EXPECT_THAT(failure(), loopFailure(isError("CantRetrieveContentFile",
                                               AllOf(HasSubstr("'../********'"), Not(HasSubstr("Sesame"))))));
    EXPECT_EQ("content", readFile(inSession("Sesame-1")));
    EXPECT_THAT(debugLog.errors,
                ElementsAre("Unable to remove remote file '/agent/********' from 'source.example': "));
}

TEST_F(ContentFile, ShowsNoPasswordThatTheSourceHostListsAsItsSum) {
    cfg.password = "Sesame-1";
    offerAs("md5sum='Sesame-1'", "Sesame-1", "content");
    action.execute();
    EXPECT_THAT(debugLog.errors, ElementsAre("File '/agent/********' is not what the content list says: " +
                                             sumOf("content") + " instead of ********"));
}

TEST_F(ContentListRetrieval, ShowsNoPasswordInTheNameOfAFileOfNegativeSize) {
    cfg.password = "Sesame-1";
    answer(list("0", entry("Sesame-1", "size='-1'")));
    EXPECT_THAT(failure(), listFailure("the size of '********' is negative"));
}

TEST_F(ContentListRetrieval, TellsTheBeginningOfAnImmenseNameOfAFileOfNegativeSize) {
    answer(list("0", entry(std::string(1'000'000, 'n'), "size='-1'")));
    EXPECT_THAT(failure(), listFailure("the size of '" + std::string(8192, 'n') +
                                       " [991808 bytes left out]' is negative"));
}

TEST_F(ContentListRetrieval, TakesAListOf16MebibytesAndNoLargerOne) {
    constexpr std::size_t kLimit = std::size_t{16} << 20;
    const std::string frame = list("0", "");
    answer(list("0", std::string(kLimit - frame.size(), ' ')));
    EXPECT_THAT(failure(), IsEmpty());
    answer(list("0", std::string(kLimit - frame.size() + 1, ' ')));
    EXPECT_THAT(failure(), listFailure("the list is larger than 16 MiB"));
}

TEST_F(ContentListRetrieval, TellsAFailureOfTheInputAsItIs) {
    useSudo("sudo word");
    ssh.results[asRoot(kList)].meanwhile = [] {
        throw Exc<&StreamWrite>("the connection", "./ssh-transfer", 1);
    };
    EXPECT_THAT(failure(), ElementsAre(isError("StreamWrite", "Cannot write data to the stream")));
}

TEST_F(ContentFile, IsNotReplacedByOneThatIsNotTheListedOne) {
    // In a subdirectory, where no match is looked for.
    fs::create_directory(inSession("sub"));
    writeFile(inSession("sub/a"), "content");
    offerAs("size='7' md5sum='" + sumOf("content") + "'", "sub/a", "cont");
    action.execute();
    EXPECT_EQ("content", readFile(inSession("sub/a")));
    EXPECT_THAT(transfers(), ElementsAre(get("sub/a")));
    EXPECT_EQ(1U, debugLog.errors.size());
    EXPECT_THAT(filesIn(inSession("sub")), ElementsAre("a"));
}

TEST_F(ContentFile, OfTheListedSizeIsNotReplacedByOneOfAnother) {
    writeFile(inSession("a"), "content");
    offerAs("size='7'", "a", "cont");
    action.execute();
    EXPECT_EQ("content", readFile(inSession("a")));
    EXPECT_THAT(transfers(), ElementsAre(get("a")));
}

TEST_F(ContentFile, IsReplacedByAnotherWhenNeitherIsTheListedOne) {
    writeFile(inSession("a"), "old");
    offerAs("size='7' md5sum='" + sumOf("content") + "'", "a", "new");
    action.execute();
    EXPECT_EQ("new", readFile(inSession("a")));
    EXPECT_THAT(transfers(), ElementsAre(get("a")));
}

TEST_F(ContentFile, IsCopiedFromAMatchUnderTheSameLastNameInsteadOfBeingFetched) {
    offer({{"a", "content"}, {"x/a", "content"}, {"y/z/a", "content"}});
    action.execute();
    EXPECT_THAT(transfers(), ElementsAre(get("a"), rm("a"), rm("x/a"), rm("y/z/a")));
    for (const char* name : {"a", "x/a", "y/z/a"}) {
        EXPECT_EQ("content", readFile(inSession(name))) << name;
    }
    EXPECT_FALSE(fs::equivalent(inSession("a"), inSession("x/a")));
    EXPECT_THAT(filesIn(inSession("x")), ElementsAre("a"));
}

TEST_F(ContentFile, IsThereBeforeTheRemoteOneIsRemovedWhenItIsCopied) {
    offer({{"a", "content"}, {"x/a", "content"}});
    ssh.results[rm("x/a")].meanwhile = [this] { EXPECT_EQ("content", readFile(inSession("x/a"))); };
    action.execute();
    EXPECT_EQ(rm("x/a"), ssh.lines().back());
}

TEST_F(ContentFile, IsNotCopiedOverOneThatIsTheListedOneAlready) {
    offer({{"a", "content"}, {"x/a", "content"}});
    fs::create_directory(inSession("x"));
    writeFile(inSession("x/a"), "content");
    fs::create_hard_link(inSession("x/a"), dir / "same");
    action.execute();
    EXPECT_TRUE(fs::equivalent(dir / "same", inSession("x/a")));
    EXPECT_EQ(rm("x/a"), ssh.lines().back());
}

TEST_F(ContentFile, IsFetchedWhenTheOneOfTheSameLastNameIsAnother) {
    offer({{"a", "first"}, {"x/a", "second"}});
    action.execute();
    EXPECT_THAT(transfers(), ElementsAre(get("a"), rm("a"), get("x/a"), rm("x/a")));
    EXPECT_EQ("first", readFile(inSession("a")));
    EXPECT_EQ("second", readFile(inSession("x/a")));
}

TEST_F(ContentFile, IsFetchedWhenTheMatchHasChangedWhileItWasCopied) {
    offer({{"x/a", "content"}});
    writeFile(inSession("a"), "content");
    beforeFlock = [this] {
        beforeFlock = nullptr;
        writeFile(inSession("a"), "changed");
    };
    action.execute();
    EXPECT_THAT(transfers(), ElementsAre(get("x/a"), rm("x/a")));
    EXPECT_EQ("content", readFile(inSession("x/a")));
}

TEST_F(ContentFile, StaysOnTheSourceHostWhenTheMatchHasGoneWhileItWasCopied) {
    offer({{"x/a", "content"}});
    writeFile(inSession("a"), "content");
    beforeFlock = [this] { fs::remove(inSession("a")); };
    EXPECT_THAT(failure(), fileFailure("x/a", inSession("a") + ": No such file or directory"));
    EXPECT_THAT(transfers(), IsEmpty());
    EXPECT_THAT(filesIn(inSession("x")), IsEmpty());
}

TEST_F(ContentFile, StaysOnTheSourceHostWhenTheCopyFindsNoPlace) {
    offer({{"x/a", "content"}});
    writeFile(inSession("a"), "content");
    const FileSizeLimit disk(4);
    EXPECT_THAT(failure(), loopFailure(isError("StreamWrite", _)));
    EXPECT_THAT(transfers(), IsEmpty());
    EXPECT_THAT(filesIn(inSession("x")), IsEmpty());
}

TEST_F(ContentFile, StaysOnTheSourceHostOnAFullDiskAndTheOldOneHere) {
    offer({{"a", "content"}, {"b", "x"}});
    writeFile(inSession("a"), "old");
    {
        const FileSizeLimit disk(4);
        EXPECT_THAT(failure(), loopFailure(isError("StreamWrite", "Cannot write data to the stream")));
    }
    EXPECT_THAT(transfers(), ElementsAre(get("a")));
    EXPECT_EQ("old", readFile(inSession("a")));
    EXPECT_THAT(sessionFiles(), ElementsAre("a"));
}

TEST_F(ContentFile, EndsTheRunWhenItCannotBeRead) {
    offer({{"a", "first"}, {"b", "second"}, {"c", "third"}});
    writeFile(inSession("b"), "old");
    remote("b") = {1, "sec", "cat: gone"};
    EXPECT_THAT(failure(), fileFailure("b", "cat: gone"));
    EXPECT_THAT(transfers(), ElementsAre(get("a"), rm("a"), get("b")));
    EXPECT_EQ("old", readFile(inSession("b")));
    EXPECT_THAT(sessionFiles(), ElementsAre("a", "b"));
}

TEST_F(ContentFile, EndsTheRunWhenTheConnectionIsLost) {
    offer({{"a", "content"}});
    writeFile(inSession("a"), "old");
    remote("a").meanwhile = [] { throw Exc<&SshConnectionFault>("context", "file", 1); };
    EXPECT_THAT(failure(), loopFailure(isError("SshConnectionFault", _)));
    EXPECT_EQ("old", readFile(inSession("a")));
    EXPECT_THAT(sessionFiles(), ElementsAre("a"));
}

TEST_F(ContentFile, EndsTheRunWhenTheStatusCannotBeSaved) {
    offer({{"a", "content"}});
    status.failingSaves = {4};
    EXPECT_THAT(failure(), loopFailure(isError("CantRenameFile", _)));
    EXPECT_THAT(transfers(), ElementsAre(get("a")));
}

TEST_F(ContentFile, LetsOtherExceptionsPass) {
    offer({{"a", "content"}});
    remote("a").meanwhile = [] { throw std::logic_error("another"); };
    EXPECT_THROW(action.execute(), std::logic_error);
}

TEST_F(ContentFile, ThatCannotBeRemovedFromTheSourceHostDoesNotEndTheRun) {
    offer({{"a", "first"}, {"b", "second"}});
    ssh.results[rm("a")] = {1, "", "rm: refused"};
    action.execute();
    EXPECT_THAT(transfers(), ElementsAre(get("a"), rm("a"), get("b"), rm("b")));
    EXPECT_THAT(debugLog.errors,
                ElementsAre("Unable to remove remote file '/agent/a' from 'source.example': rm: refused"));
    EXPECT_THAT(status.calls, Contains("files left 0"));
}

TEST_F(ContentFile, IsWrittenBesideItsNameAndReplacesItAtTheEnd) {
    offer({{"a", "content"}});
    writeFile(inSession("a"), "old");
    remote("a").meanwhile = [this] { EXPECT_EQ("old", readFile(inSession("a"))); };
    action.execute();
    EXPECT_EQ("content", readFile(inSession("a")));
}

TEST_F(ContentFile, IsReadableForAllAndItsDirectoriesBelongToThePanel) {
    const test::FakePanelAccount panel(4711, 4712);
    offer({{"x/a", "content"}});
    action.execute();
    struct stat directory {};
    struct stat file {};
    ASSERT_EQ(0, ::stat(inSession("x").c_str(), &directory));
    ASSERT_EQ(0, ::stat(inSession("x/a").c_str(), &file));
    EXPECT_EQ(4711U, directory.st_uid);
    EXPECT_EQ(4712U, directory.st_gid);
    EXPECT_EQ(0755U, directory.st_mode & 07777U);
    EXPECT_EQ(0644U, file.st_mode & 07777U);
}

TEST_F(ContentFile, MayBeTheDumpOrTheResultOfTheMigration) {
    offer({{"dump.xml", "dump"}, {"migration.result", "result"}});
    action.execute();
    EXPECT_EQ("dump", readFile(inSession("dump.xml")));
    EXPECT_EQ("result", readFile(inSession("migration.result")));
}

TEST_F(ContentFile, SweepsAwayWhatAKilledRunLeftBesideIt) {
    offer({{"a", "content"}});
    writeFile(inSession(".incoming-17-01234567-89ab-4cde-8f01-23456789abcd"), "half");
    action.execute();
    EXPECT_THAT(sessionFiles(), ElementsAre("a", "dump-name", "migration-result-name"));
}

using RefusedContentFile = RetrieveContent;

TEST_F(RefusedContentFile, IsToldWhenItsTurnComes) {
    offer({{"a", "content"}, {"../b", "outside"}});
    EXPECT_THAT(failure(), fileFailure("../b", "the path leads out of the directory"));
    EXPECT_THAT(transfers(), ElementsAre(get("a"), rm("a")));
    EXPECT_EQ("content", readFile(inSession("a")));
    EXPECT_FALSE(fs::exists(dir / "b"));
    EXPECT_THAT(sessionFiles(), ElementsAre("a"));
}

TEST_F(RefusedContentFile, HasAPathThatIsTooLongOfWhichTheBeginningIsTold) {
    cfg.dumps_dir = dir / "dumps";
    cfg.no_check_space = true;
    offer({{"x/" + std::string(1'000'000, 'n'), "content"}});
    const std::string place = cfg.dumps_dir + "/x/";
    EXPECT_THAT(failure(),
                loopFailure(isError("CantRetrieveContentFile",
                                    "Failed to retrieve file 'x/" + std::string(8190, 'n') +
                                        " [991810 bytes left out]' from 'source.example' to '" + place +
                                        std::string(8192 - place.size(), 'n') + " [" +
                                        std::to_string(1'000'000 - 8192 + place.size()) +
                                        " bytes left out]': the path is longer than paths can be")));
    EXPECT_THAT(transfers(), IsEmpty());
    EXPECT_FALSE(fs::exists(cfg.dumps_dir));
}

TEST_F(RefusedContentFile, IsToldWithoutHalfACharacterAtTheCut) {
    offer({{"n" + repeated("\xE2\x82\xAC", 3000), "content"}});
    const std::vector<ErrorRecord> errors = failure();
    ASSERT_EQ(2U, errors.size());
    EXPECT_THAT(errors[1].message, HasSubstr("\x82\xAC [810 bytes left out]'"));
    EXPECT_THAT(errors[1].message, Not(HasSubstr("\xEF\xBF\xBD")));
}

TEST_F(RefusedContentFile, HidesAPasswordAtTheCut) {
    cfg.password = "Sesame-1";
    for (std::size_t before = 8180; before < 8196; ++before) {
        offer({{std::string(before, 'n') + "Sesame-1", "content"}});
        const std::vector<ErrorRecord> errors = failure();
        ASSERT_EQ(2U, errors.size());
        EXPECT_THAT(errors[1].message, Not(HasSubstr("S"))) << before;
    }
}

TEST_F(ContentFile, IsToldWithTheBeginningOfAnImmenseSum) {
    offerAs("md5sum='" + std::string(1'000'000, '0') + "'", "a", "content");
    action.execute();
    EXPECT_THAT(debugLog.errors,
                ElementsAre("File '/agent/a' is not what the content list says: " + sumOf("content") +
                            " instead of " + std::string(8192, '0') + " [991808 bytes left out]"));
}

TEST_F(RefusedContentFile, LeavesNoDirectoryAndIsNotAskedFor) {
    const std::vector<std::pair<std::string, std::string>> refusals = {
        {"", "the path names no file"},
        {"x/", "the path names no file"},
        {"x/.", "the path names no file"},
        {"x/../y", "the path leads out of the directory"},
        {"x/..", "the path leads out of the directory"},
        {"x/{a,b}", "the path holds a brace expression"},
        {"x/{1..9}", "the path holds a brace expression"},
        {"migration.status", "the path is that of a file of this run"},
        {"./migration.log", "the path is that of a file of this run"},
        {"transfer.result.7", "the path is that of a file of this run"},
        {"dump-name/x", "the path is that of a file of this run"},
        {".//migration-result-name/x/y", "the path is that of a file of this run"},
    };
    for (const auto& [name, reason] : refusals) {
        offer({{name, "content"}});
        ssh.commands.clear();
        EXPECT_THAT(failure(), fileFailure(name, reason)) << name;
        EXPECT_THAT(transfers(), IsEmpty()) << name;
        EXPECT_THAT(sessionFiles(), IsEmpty()) << name;
        EXPECT_FALSE(fs::exists(inSession("x"))) << name;
    }
}

TEST_F(RefusedContentFile, IsOneOfThisRunAlsoFromTheDirectoryAboveTheSession) {
    cfg.dumps_dir = dir.path();
    for (const char* name : {"session/migration.status", "./session//dump-name"}) {
        offer({{name, "content"}});
        EXPECT_THAT(failure(), loopFailure(isError("CantRetrieveContentFile",
                                                   HasSubstr("the path is that of a file of this run"))));
    }
    EXPECT_THAT(sessionFiles(), IsEmpty());
    offer({{"migration.status", "content"}});
    action.execute();
    EXPECT_EQ("content", readFile(dir / "migration.status"));
}

TEST_F(RefusedContentFile, HasALinkInItsPlaceWhichIsLeftAlone) {
    offer({{"a", "content"}});
    writeFile(dir / "target", "content");
    fs::create_symlink(dir / "target", inSession("a"));
    EXPECT_THAT(failure(), fileFailure("a", "a is not a regular file: Too many levels of symbolic links"));
    EXPECT_TRUE(fs::is_symlink(inSession("a")));
    EXPECT_THAT(transfers(), IsEmpty());
}

TEST_F(RefusedContentFile, HasAFifoInItsPlaceWhichIsLeftAlone) {
    offer({{"a", "content"}});
    ASSERT_EQ(0, ::mkfifo(inSession("a").c_str(), 0600));
    EXPECT_THAT(failure(), fileFailure("a", "a is not a regular file: File exists"));
    EXPECT_TRUE(fs::is_fifo(inSession("a")));
    EXPECT_THAT(transfers(), IsEmpty());
}

TEST_F(RefusedContentFile, HasADirectoryInItsPlace) {
    offer({{"a", "content"}});
    fs::create_directory(inSession("a"));
    EXPECT_THAT(failure(), fileFailure("a", "a: Is a directory"));
}

TEST_F(RefusedContentFile, HasALinkOrFifoForADirectory) {
    fs::create_directory(dir / "outside");
    fs::create_directory_symlink(dir / "outside", inSession("link"));
    ASSERT_EQ(0, ::mkfifo(inSession("fifo").c_str(), 0600));
    for (const char* name : {"link/a", "link/below/a", "fifo/a"}) {
        offer({{name, "content"}});
        ssh.commands.clear();
        EXPECT_THAT(failure(), fileFailure(name, inSession(name) + ": Not a directory"));
        EXPECT_THAT(transfers(), IsEmpty());
    }
    EXPECT_TRUE(fs::is_empty(dir / "outside"));
    EXPECT_TRUE(fs::is_symlink(inSession("link")));
    EXPECT_TRUE(fs::is_fifo(inSession("fifo")));
}

using DumpsDirectory = RetrieveContent;

TEST_F(DumpsDirectory, GetsTheFilesAndIsNamedInTheRecords) {
    useDumpsDir();
    offer({{"a", "content"}, {"x/b", "more"}});
    action.execute();
    EXPECT_EQ("content", readFile(dir / "dumps/a"));
    EXPECT_EQ("more", readFile(dir / "dumps/x/b"));
    EXPECT_EQ(dir / "dumps/dump.xml", readFile(inSession("dump-name")));
    EXPECT_EQ(dir / "dumps/migration.result", readFile(inSession("migration-result-name")));
    EXPECT_THAT(sessionFiles(), ElementsAre("dump-name", "migration-result-name"));
}

TEST_F(DumpsDirectory, IsNotLookedIntoForFilesThatAreHere) {
    useDumpsDir();
    offer({{"a", "content"}});
    writeFile(dir / "dumps/a", "content");
    action.execute();
    EXPECT_THAT(transfers(), ElementsAre(get("a"), rm("a")));
    EXPECT_EQ("content", readFile(dir / "dumps/a"));
}

TEST_F(DumpsDirectory, KeepsWhatIsTheListedFileWhenTheSourceHostHasAnother) {
    useDumpsDir();
    offer({{"a", "content"}});
    writeFile(dir / "dumps/a", "content");
    remote("a").out = "cont";
    action.execute();
    EXPECT_THAT(transfers(), ElementsAre(get("a")));
    EXPECT_EQ("content", readFile(dir / "dumps/a"));
}

TEST_F(DumpsDirectory, GetsACopyOfAMatchInTheSession) {
    useDumpsDir();
    offer({{"x/a", "content"}});
    writeFile(inSession("a"), "content");
    action.execute();
    EXPECT_THAT(transfers(), ElementsAre(rm("x/a")));
    EXPECT_EQ("content", readFile(dir / "dumps/x/a"));
    EXPECT_EQ("content", readFile(inSession("a")));
}

TEST_F(DumpsDirectory, GetsWhatALinkOrFifoInTheSessionIsNoMatchFor) {
    useDumpsDir();
    offer({{"a", "content"}, {"b", "more"}});
    writeFile(dir / "target", "content");
    fs::create_symlink(dir / "target", inSession("a"));
    ASSERT_EQ(0, ::mkfifo(inSession("b").c_str(), 0600));
    action.execute();
    EXPECT_THAT(transfers(), ElementsAre(get("a"), rm("a"), get("b"), rm("b")));
    EXPECT_TRUE(fs::is_symlink(inSession("a")));
    EXPECT_TRUE(fs::is_fifo(inSession("b")));
}

using ContentNameRecord = RetrieveContent;

TEST_F(ContentNameRecord, FailsWithoutBeingWrapped) {
    answer(list("0", ""));
    for (const char* name : {"dump-name", "migration-result-name"}) {
        fs::create_symlink("elsewhere", inSession(name));
        EXPECT_THAT(failure(), ElementsAre(isError("FileWrite", HasSubstr(inSession(name)))));
        EXPECT_TRUE(fs::is_symlink(inSession(name)));
        fs::remove(inSession(name));
    }
    EXPECT_FALSE(fs::exists(inSession("elsewhere")));
}

TEST_F(ContentNameRecord, IsOnTheDisk) {
    answer(list("0", ""));
    const test::FakeFsync fsync;
    action.execute();
    const auto temporary = HasSubstr("/session/.incoming-");
    EXPECT_THAT(test::FakeFsync::flushed(),
                ElementsAre(temporary, dir / "session", temporary, dir / "session"));
}

}  // namespace
}  // namespace korva
