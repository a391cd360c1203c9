// SPDX-License-Identifier: Apache-2.0
#include "tallowick/dump_selection.h"

#include "support/files.h"
#include "support/libxml_allocation_failure.h"
#include "support/recording_logs.h"
#include "support/temp_dir.h"
#include "support/thrown_errors.h"
#include "xml/xml_errors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>
#include <string>
#include <vector>

namespace korva {
namespace {

using test::errorsOf;
using test::TempDir;
using test::writeFile;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// A selected-objects file, and what is read of it.
class SelectedObjects : public testing::Test {
  protected:
    void parse(const std::string& content) {
        writeFile(path, content);
        parseSelectedObjectsFile(path, domains, clients, resellers, filter, compress, server, adminInfo,
                                 license);
    }

    TempDir dir;
    test::RecordingDebugLog debugLog;
    const std::string path = dir / "objects.xml";
    std::string domains;
    std::string clients;
    std::string resellers;
    opt_backup_filter filter = kFilterNone;
    opt_backup_compress compress = kCompressNotGiven;
    bool server = false;
    bool adminInfo = false;
    bool license = false;
};

TEST_F(SelectedObjects, GiveTheirNamesByKindAndInTheirOrderWhereverTheyStand) {
    parse(
        "<objects>"
        "<reseller><name>r1</name><client><name>c1</name><domain><name>d1</name></domain></client></reseller>"
        "<domain><name>d2</name></domain><client><name>c2</name></client><reseller><name>r2</name></reseller>"
        "<name>none</name><domain><title><name>deeper</name></title></domain>"
        "</objects>");
    EXPECT_EQ("d1,d2", domains);
    EXPECT_EQ("c1,c2", clients);
    EXPECT_EQ("r1,r2", resellers);
}

TEST_F(SelectedObjects, SkipEmptyNamesWithoutACommaForThem) {
    parse(
        "<objects><domain><name/></domain><domain><name>a</name></domain><domain><name></name></domain>"
        "<domain/><domain><name>b</name></domain></objects>");
    EXPECT_EQ("a,b", domains);
}

TEST_F(SelectedObjects, SkipANameThatIsAnEmptySection) {
    parse(
        "<objects><domain><name><![CDATA[]]></name></domain><domain><name>a</name></domain>"
        "<domain><name><![CDATA[b&c]]></name></domain></objects>");
    EXPECT_EQ("a,b&c", domains);
}

TEST_F(SelectedObjects, GiveNothingOfAFileThatSelectsNothing) {
    parse("<objects/>");
    EXPECT_EQ("", domains + clients + resellers);
    EXPECT_EQ(kFilterNone, filter);
    EXPECT_EQ(kCompressNotGiven, compress);
    EXPECT_FALSE(server || adminInfo || license);
}

TEST_F(SelectedObjects, AppendToANonEmptyListWithoutACommaInBetween) {
    domains = "before,";
    parse("<objects><domain><name>a</name></domain></objects>");
    EXPECT_EQ("before,a", domains);
}

TEST_F(SelectedObjects, AreReadWholeOrNotAtAllWhereMemoryDoesNotSuffice) {
    const std::string content =
        "<objects><parameters filter='only-mail' compression-level='do-not-compress'/>"
        "<reseller><name>r</name><client><name>c</name></client></reseller>"
        "<domain><name>d1</name></domain><domain><name><![CDATA[d2]]></name></domain></objects>";
    parse(content);  // libxml2 may set itself up
    int whole = 0;
    for (int number = 1; whole == 0; ++number) {
        domains = clients = resellers = "";
        filter = kFilterNone;
        compress = kCompressNotGiven;
        const test::LibxmlAllocationFailure failure(number);
        try {
            parse(content);
        } catch (const std::bad_alloc&) {
            continue;
        } catch (const ExTraceable&) {
            continue;
        }
        EXPECT_EQ("d1,d2 c r", domains + " " + clients + " " + resellers) << number;
        EXPECT_EQ(kFilterOnlyMail, filter) << number;
        EXPECT_EQ(kCompressNone, compress) << number;
        whole += test::LibxmlAllocationFailure::happened() ? 0 : 1;
    }
}

TEST_F(SelectedObjects, TellOfServerLicenseAndAdminInfo) {
    parse("<objects><server/></objects>");
    EXPECT_TRUE(server);
    EXPECT_FALSE(license || adminInfo);
    parse("<objects><x><server><license/></server></x></objects>");
    EXPECT_TRUE(server && license);
    EXPECT_FALSE(adminInfo);
    parse("<objects><admin-info/><license/></objects>");
    EXPECT_TRUE(adminInfo);
    EXPECT_FALSE(server || license);
}

TEST_F(SelectedObjects, SetTheFilter) {
    parse("<objects><parameters filter='only-mail'/></objects>");
    EXPECT_EQ(kFilterOnlyMail, filter);
    parse("<objects><parameters filter='only-phosting'/></objects>");
    EXPECT_EQ(kFilterOnlyHosting, filter);
}

TEST_F(SelectedObjects, LeaveTheFilterWhenItIsAnythingElse) {
    filter = kFilterOnlyMail;
    for (const char* parameters :
         {"", "<parameters/>", "<parameters filter=''/>", "<parameters filter='only-hosting'/>",
          "<parameters filter='Only-Mail'/>", "<x><parameters filter='only-phosting'/></x>"}) {
        parse(std::string("<objects>") + parameters + "</objects>");
        EXPECT_EQ(kFilterOnlyMail, filter) << parameters;
    }
}

TEST_F(SelectedObjects, SetTheCompression) {
    parse("<objects><parameters compression-level='do-not-compress'/></objects>");
    EXPECT_EQ(kCompressNone, compress);
    parse("<objects><parameters compression-level='standard'/></objects>");
    EXPECT_EQ(kCompressStandard, compress);
}

TEST_F(SelectedObjects, LeaveTheCompressionWhenItIsAnythingElse) {
    compress = kCompressNone;
    parse("<objects><parameters compression-level='best'/></objects>");
    EXPECT_EQ(kCompressNone, compress);
    parse("<objects/>");
    EXPECT_EQ(kCompressNone, compress);
}

TEST_F(SelectedObjects, FailAsDocumentsDo) {
    EXPECT_THROW(parseSelectedObjectsFile(dir / "missing", domains, clients, resellers, filter, compress,
                                          server, adminInfo, license),
                 Exc<&tError_WrongInputFile>);
    EXPECT_THROW(parse("<objects>"), Exc<&tError_ParseFile>);
    EXPECT_THROW(parse(""), Exc<&tError_ParseFile>);
}

/// What the command line adds to a selection.
class ConfiguredObjects : public SelectedObjects {
  protected:
    void merge() {
        getSelectedObjectsFromConfig(cfg, domains, clients, resellers, filter, compress, server, adminInfo,
                                     license);
    }

    config cfg;
};

TEST_F(ConfiguredObjects, AreAppendedToThoseOfTheFile) {
    domains = "d1,d2";
    cfg.domains = "d3,d4";
    cfg.clients = "c1";
    resellers = "r1";
    merge();
    EXPECT_EQ("d1,d2,d3,d4", domains);
    EXPECT_EQ("c1", clients);
    EXPECT_EQ("r1", resellers);
}

TEST_F(ConfiguredObjects, AreTakenAsTheyAreEvenADash) {
    cfg.domains = "-";
    domains = "a";
    merge();
    EXPECT_EQ("a,-", domains);
}

TEST_F(ConfiguredObjects, ReplaceFilterAndCompressionOnlyWhenTheyWereGiven) {
    filter = kFilterOnlyMail;
    compress = kCompressStandard;
    merge();
    EXPECT_EQ(kFilterOnlyMail, filter);
    EXPECT_EQ(kCompressStandard, compress);
    cfg.filter = kFilterOnlyHosting;
    cfg.compress = kCompressNone;
    merge();
    EXPECT_EQ(kFilterOnlyHosting, filter);
    EXPECT_EQ(kCompressNone, compress);
}

TEST_F(ConfiguredObjects, AlwaysReplaceTheFlags) {
    server = adminInfo = license = true;
    merge();
    EXPECT_FALSE(server || adminInfo || license);
    cfg.server = true;
    merge();
    EXPECT_TRUE(server);
    EXPECT_FALSE(adminInfo || license);
    cfg.admin_info = true;
    merge();
    EXPECT_TRUE(adminInfo);
    EXPECT_FALSE(license);
    cfg.no_license = true;
    merge();
    EXPECT_TRUE(license);
}

class DumperInputTest : public testing::Test {
  protected:
    DumperInputTest() {
        cfg.action = kDumpSelected;
        cfg.host = "source.example";
        cfg.login = "user";
        cfg.password = "login word";
    }
    void selectObjects(const std::string& content) {
        cfg.selected_objects_file = dir / "objects.xml";
        writeFile(cfg.selected_objects_file, content);
    }
    std::vector<std::string> arguments() const { return buildDumperInput(cfg).arguments; }
    std::string stdinText() const { return buildDumperInput(cfg).stdinText; }

    TempDir dir;
    test::RecordingDebugLog debugLog;
    config cfg;
};

TEST_F(DumperInputTest, ForTwoDomainsIsTheirListWithoutANewline) {
    cfg.domains = "a.example,b.example";
    EXPECT_THAT(arguments(), ElementsAre("--migration-mode", "--dump-domains=-", "--include-app-distrib"));
    EXPECT_EQ("a.example,b.example", stdinText());
}

TEST_F(DumperInputTest, ForAllThreeListsIsThreeLinesInTheOrderOfTheArguments) {
    cfg.resellers = "r";
    cfg.clients = "c";
    cfg.domains = "d";
    EXPECT_THAT(arguments(), ElementsAre("--migration-mode", "--dump-domains=-", "--dump-clients=-",
                                         "--dump-resellers=-", "--include-app-distrib"));
    EXPECT_EQ("d\nc\nr", stdinText());
}

TEST_F(DumperInputTest, LeavesOutTheListsThatAreEmpty) {
    cfg.clients = "c";
    EXPECT_THAT(arguments(), ElementsAre("--migration-mode", "--dump-clients=-", "--include-app-distrib"));
    EXPECT_EQ("c", stdinText());
    cfg.resellers = "r";
    EXPECT_EQ("c\nr", stdinText());
}

TEST_F(DumperInputTest, WithoutAnyListHasNoText) {
    EXPECT_THAT(arguments(), ElementsAre("--migration-mode", "--include-app-distrib"));
    EXPECT_EQ("", stdinText());
}

TEST_F(DumperInputTest, GivesTheNamesOfTheFileBeforeThatOfTheCommandLine) {
    selectObjects("<objects><domain><name>f1</name></domain><domain><name>f2</name></domain></objects>");
    cfg.domains = "given";
    EXPECT_EQ("f1,f2,given", stdinText());
}

TEST_F(DumperInputTest, PrefersTheFilterOfTheCommandLineToThatOfTheFile) {
    selectObjects("<objects><parameters filter='only-mail'/></objects>");
    EXPECT_THAT(arguments(), ElementsAre("--migration-mode", "--only-mail", "--include-app-distrib"));
    cfg.filter = kFilterOnlyHosting;
    EXPECT_THAT(arguments(), ElementsAre("--migration-mode", "--only-hosting", "--include-app-distrib"));
}

TEST_F(DumperInputTest, TellsOfCompressionOnlyWhenThereIsToBeNone) {
    selectObjects("<objects><parameters compression-level='do-not-compress'/></objects>");
    EXPECT_THAT(arguments(), ElementsAre("--migration-mode", "--no-compress", "--include-app-distrib"));
    cfg.compress = kCompressStandard;
    EXPECT_THAT(arguments(), ElementsAre("--migration-mode", "--include-app-distrib"));
}

TEST_F(DumperInputTest, GivesAllOptionsInTheirOrder) {
    cfg.domains = "d";
    cfg.filter = kFilterOnlyMail;
    cfg.compress = kCompressNone;
    cfg.server = cfg.admin_info = cfg.no_license = true;
    EXPECT_THAT(arguments(),
                ElementsAre("--migration-mode", "--dump-domains=-", "--only-mail", "--no-compress",
                            "--include-app-distrib", "--server", "--admin-info", "--no-license"));
}

TEST_F(DumperInputTest, TakesTheFlagsFromTheCommandLineAlone) {
    selectObjects("<objects><server><license/></server><admin-info/></objects>");
    EXPECT_THAT(arguments(), ElementsAre("--migration-mode", "--include-app-distrib"));
    cfg.server = true;
    EXPECT_THAT(arguments(), ElementsAre("--migration-mode", "--include-app-distrib", "--server"));
}

TEST_F(DumperInputTest, ForEverythingIsNothingOfTheSelection) {
    selectObjects("this file is not even read");
    cfg.action = kDumpAll;
    cfg.domains = "d";
    cfg.filter = kFilterOnlyMail;
    cfg.compress = kCompressNone;
    cfg.server = cfg.admin_info = cfg.no_license = true;
    EXPECT_THAT(arguments(), ElementsAre("--migration-mode", "--dump-all"));
    EXPECT_EQ("", stdinText());
}

TEST_F(DumperInputTest, ForRsyncBeginsWithWhatTheAgentConnectsWith) {
    cfg.content_transport = "rsync";
    cfg.domains = "d";
    EXPECT_THAT(arguments(), ElementsAre("--content-transport=rsync", "--migration-mode", "--dump-domains=-",
                                         "--include-app-distrib"));
    EXPECT_EQ("source.example\nuser\nlogin word\n0\nd", stdinText());
}

TEST_F(DumperInputTest, ForRsyncTellsThePortAsItWasGiven) {
    cfg.content_transport = "rsync";
    cfg.action = kDumpAll;
    cfg.port = 2222;
    EXPECT_THAT(arguments(), ElementsAre("--content-transport=rsync", "--migration-mode", "--dump-all"));
    EXPECT_EQ("source.example\nuser\nlogin word\n2222\n", stdinText());
    cfg.port = -1;
    EXPECT_EQ("source.example\nuser\nlogin word\n\n", stdinText());
}

TEST_F(DumperInputTest, KnowsNoOtherTransport) {
    for (const char* transport : {"ssh", "RSYNC", "rsync "}) {
        cfg.content_transport = transport;
        EXPECT_THAT(arguments(), ElementsAre("--migration-mode", "--include-app-distrib"));
        EXPECT_EQ("", stdinText());
    }
}

TEST_F(DumperInputTest, FailsWithAFileThatIsMissing) {
    cfg.selected_objects_file = dir / "missing";
    EXPECT_THROW(buildDumperInput(cfg), Exc<&tError_WrongInputFile>);
}

TEST_F(DumperInputTest, FailsWithAFileThatIsNoDocumentWithoutQuotingAPasswordOfIt) {
    cfg.sudo_password = "sudo word";
    selectObjects("<objects>login word, sudo word</x>");
    const std::vector<test::ErrorRecord> errors = errorsOf([this] { buildDumperInput(cfg); });
    ASSERT_EQ(1U, errors.size());
    EXPECT_EQ("tError_ParseFile", errors[0].code);
    EXPECT_THAT(errors[0].message,
                AllOf(StartsWith("The XML file " + cfg.selected_objects_file +
                                 " was not parsed successfully with the following errors:\n"),
                      HasSubstr("Opening and ending tag mismatch"), HasSubstr("********, ********"),
                      Not(HasSubstr("login word")), Not(HasSubstr("sudo word"))));
}

TEST_F(DumperInputTest, QuotesNothingOfAFileThatIsNoDocumentAndNotInUtf8) {
    const std::string utf7 = "<?xml version='1.0' encoding='UTF-7'?><objects>login+ACA-word</x>";
    std::string utf16 = "\xFF\xFE";
    for (const char c : std::string("<objects>login word</x>")) {
        utf16 += {c, '\0'};
    }
    for (const std::string& content : {utf7, utf16}) {
        selectObjects(content);
        EXPECT_THAT(errorsOf([this] { buildDumperInput(cfg); }),
                    ElementsAre(test::isError("tError_ParseFile",
                                              "The XML file " + cfg.selected_objects_file +
                                                  " was not parsed successfully with the following errors:\n"
                                                  "It is not in UTF-8, so nothing of it is quoted\n")));
    }
}

TEST_F(DumperInputTest, LogsTheErrorsOfSingleNodes) {
    xmlErrorFunc(Exc<&tError_XmlInternal>("context", "file", 1) % "the reason");
    EXPECT_THAT(debugLog.errors, ElementsAre("the reason"));
}

}  // namespace
}  // namespace korva
