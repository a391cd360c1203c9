// SPDX-License-Identifier: Apache-2.0
#include "support/allocation_failure.h"
#include "support/files.h"
#include "support/temp_dir.h"
#include "support/utility_log_capture.h"
#include "utils/ovn_conf.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace korva {
namespace {

using test::AllocationFailure;
using test::TempDir;
using test::UtilityLogCapture;
using test::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;

class OvnConfFile : public testing::Test {
  protected:
    int read(const std::string& content) {
        writeFile(path(), content);
        return conf_read_file_r(path().c_str(), &conf);
    }

    /// "(null)" for what is not defined.
    std::string value(const std::string& name = "PRODUCT_ROOT_D") const {
        const char* found = conf_get_r(name.c_str(), &conf);
        return found != nullptr ? found : "(null)";
    }

    std::string valueOf(const std::string& line) {
        conf_free_r(&conf);
        EXPECT_EQ(0, read(line));
        return value();
    }

    std::string path() const { return directory / "ovn.conf"; }

    TempDir directory;
    UtilityLogCapture log;
    conf_data conf;
};

TEST_F(OvnConfFile, GivesTheValueOfALineWithNewline) {
    EXPECT_EQ("/opt/p", valueOf("PRODUCT_ROOT_D /opt/p\n"));
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(OvnConfFile, GivesTheValueOfALastLineWithoutNewline) {
    EXPECT_EQ("/opt/p", valueOf("PRODUCT_ROOT_D /opt/p"));
}

TEST_F(OvnConfFile, CutsASingleBlankBeforeAComment) {
    EXPECT_EQ("/opt/p", valueOf("PRODUCT_ROOT_D /opt/p # root\n"));
}

TEST_F(OvnConfFile, KeepsAnEvenRunOfTrailingWhiteSpaceWithTheNewline) {
    EXPECT_EQ("/opt/p \n", valueOf("PRODUCT_ROOT_D /opt/p \n"));
    EXPECT_EQ("/opt/p   \n", valueOf("PRODUCT_ROOT_D /opt/p   \n"));
    EXPECT_EQ("/opt/p  ", valueOf("PRODUCT_ROOT_D /opt/p  "));
    EXPECT_EQ("/opt/p  ", valueOf("PRODUCT_ROOT_D /opt/p  # root\n"));
}

TEST_F(OvnConfFile, CutsAnOddRunOfTrailingWhiteSpaceAtItsLastCharacter) {
    EXPECT_EQ("/opt/p  ", valueOf("PRODUCT_ROOT_D /opt/p  \n"));
    EXPECT_EQ("/opt/p \t", valueOf("PRODUCT_ROOT_D /opt/p \t\n"));
    EXPECT_EQ("/opt/p  ", valueOf("PRODUCT_ROOT_D /opt/p   # root\n"));
    EXPECT_EQ("/opt/p", valueOf("PRODUCT_ROOT_D /opt/p "));
}

TEST_F(OvnConfFile, KeepsWhiteSpaceInsideAValue) {
    EXPECT_EQ("a b  c", valueOf("PRODUCT_ROOT_D a b  c\n"));
}

TEST_F(OvnConfFile, EndsAValueAtACommentSign) {
    EXPECT_EQ("/opt/p", valueOf("PRODUCT_ROOT_D /opt/p#root\n"));
}

TEST_F(OvnConfFile, TakesValuesOfOneCharacter) {
    EXPECT_EQ("/", valueOf("PRODUCT_ROOT_D /\n"));
    EXPECT_EQ("/", valueOf("PRODUCT_ROOT_D /#\n"));
    EXPECT_EQ("/", valueOf("PRODUCT_ROOT_D /"));
}

TEST_F(OvnConfFile, SkipsWhiteSpaceBeforeNameAndValue) {
    EXPECT_EQ("/opt/p", valueOf(" \t\v\f\rPRODUCT_ROOT_D\t \t/opt/p\n"));
}

TEST_F(OvnConfFile, SkipsCommentsAndEmptyLines) {
    EXPECT_EQ("/opt/p", valueOf("\n# PRODUCT_ROOT_D /a\n   \n  # b\nPRODUCT_ROOT_D /opt/p\n\n#"));
    EXPECT_EQ(1U, conf.entries.size());
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(OvnConfFile, AcceptsAnEmptyFile) {
    EXPECT_EQ(0, read(""));
    EXPECT_EQ("(null)", value());
    EXPECT_TRUE(conf.finalized);
}

TEST_F(OvnConfFile, LetsTheLaterOfTwoDefinitionsWin) {
    EXPECT_EQ("/second", valueOf("PRODUCT_ROOT_D /first\nDUMP_D /dumps\nPRODUCT_ROOT_D /second\n"));
    EXPECT_EQ("/dumps", value("DUMP_D"));
    EXPECT_EQ(2U, conf.entries.size());
}

TEST_F(OvnConfFile, RejectsAnEqualsSignAfterTheName) {
    EXPECT_EQ("(null)", valueOf("  PRODUCT_ROOT_D=/opt/p\n"));
    EXPECT_THAT(log.messages(), ElementsAre("Invalid variable definition PRODUCT_ROOT_D=/opt/p\n\n"
                                            "Expected a space after variable name\n"));
}

TEST_F(OvnConfFile, RejectsANameAtTheEndOfTheFile) {
    EXPECT_EQ("(null)", valueOf("PRODUCT_ROOT_D"));
    EXPECT_THAT(log.messages(), ElementsAre("Invalid variable definition PRODUCT_ROOT_D\n"
                                            "Expected a space after variable name\n"));
}

TEST_F(OvnConfFile, RejectsALineWithoutAName) {
    EXPECT_EQ("(null)", valueOf("-x PRODUCT_ROOT_D\n"));
    EXPECT_THAT(log.messages(), ElementsAre("Invalid variable definition -x PRODUCT_ROOT_D\n\n"
                                            "Expected a space after variable name\n"));
}

TEST_F(OvnConfFile, RejectsANameWithoutAValue) {
    EXPECT_EQ("(null)", valueOf("PRODUCT_ROOT_D\n"));
    EXPECT_THAT(log.messages(),
                ElementsAre("Invalid variable definition PRODUCT_ROOT_D\n\nExpected a value"));
}

TEST_F(OvnConfFile, RejectsACommentInPlaceOfAValue) {
    EXPECT_EQ("(null)", valueOf(" PRODUCT_ROOT_D # none\n"));
    EXPECT_THAT(log.messages(),
                ElementsAre("Invalid variable definition PRODUCT_ROOT_D # none\n\nExpected a value"));
}

TEST_F(OvnConfFile, ReadsOnBehindAMalformedLine) {
    EXPECT_EQ("/opt/p", valueOf("BAD=1\nBAD\nPRODUCT_ROOT_D /opt/p\n"));
    EXPECT_EQ(2U, log.messages().size());
}

TEST_F(OvnConfFile, TakesBytesBeyondAsciiIntoValuesOnly) {
    EXPECT_EQ("/\xc3\xa4\xff", valueOf("PRODUCT_ROOT_D /\xc3\xa4\xff\n"));
    EXPECT_EQ("(null)", valueOf("PRODUCT\xc3\xa4_ROOT_D /x\n"));
}

TEST_F(OvnConfFile, EndsALineAtANulByte) {
    EXPECT_EQ("/a", valueOf(std::string("PRODUCT_ROOT_D /a\0b\nDUMP_D /d\n", 31)));
    EXPECT_EQ("/d", value("DUMP_D"));
}

TEST_F(OvnConfFile, ReadsLinesOfAnyLength) {
    const std::string longValue(1000000, 'v');
    EXPECT_EQ(longValue, valueOf("PRODUCT_ROOT_D " + longValue + "\n"));
}

TEST_F(OvnConfFile, FindsEachOfManyVariables) {
    std::string content;
    for (int i = 0; i < 100; ++i) {
        content += "VAR_" + std::to_string(i) + " value" + std::to_string(i) + "\n";
    }
    ASSERT_EQ(0, read(content));
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ("value" + std::to_string(i), value("VAR_" + std::to_string(i)));
    }
    EXPECT_EQ("(null)", value("VAR_"));
    EXPECT_EQ("(null)", value("VAR_999"));
}

TEST_F(OvnConfFile, SortsByBytesWhenItHasBeenRead) {
    ASSERT_EQ(0, read("b 1\nA 2\n_ 3\na 4\nB 5\n"));
    std::vector<std::string> names;
    for (const conf_entry& entry : conf.entries) {
        names.emplace_back(entry.name);
    }
    EXPECT_THAT(names, ElementsAre("A", "B", "_", "a", "b"));
    EXPECT_TRUE(conf.finalized);
    EXPECT_EQ("4", value("a"));
    EXPECT_EQ("2", value("A"));
}

TEST_F(OvnConfFile, ReportsAFileThatCannotBeOpened) {
    const std::string missing = directory / "missing";
    EXPECT_EQ(-1, conf_read_file_r(missing.c_str(), &conf));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_THAT(log.messages(), ElementsAre("unable to open configuration file " + missing +
                                            ": No such file or directory\n"));
}

TEST_F(OvnConfFile, ReportsAFileThatCannotBeRead) {
    EXPECT_EQ(-1, conf_read_file_r(directory.path().c_str(), &conf));
    EXPECT_EQ(EISDIR, errno);
    EXPECT_THAT(log.messages(), ElementsAre("Unable to read configuration file: Is a directory"));
}

TEST_F(OvnConfFile, StopsWhenMemoryRunsOutForAValue) {
    constexpr std::size_t kLength = 100000;
    writeFile(path(), "DUMP_D /d\nPRODUCT_ROOT_D " + std::string(kLength, 'v') + "\nDUMP_TMP_D /t\n");
    const AllocationFailure failure(kLength);
    EXPECT_EQ(-1, conf_read_file_r(path().c_str(), &conf));
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_THAT(log.messages(), ElementsAre("Unable to form configuration: Cannot allocate memory"));
    EXPECT_EQ("/d", value("DUMP_D"));
    EXPECT_EQ("(null)", value("DUMP_TMP_D"));
}

TEST_F(OvnConfFile, StopsWhenMemoryRunsOutForTheStore) {
    writeFile(path(), "DUMP_D /d\n");
    const AllocationFailure failure(20 * sizeof(conf_entry));
    EXPECT_EQ(-1, conf_read_file_r(path().c_str(), &conf));
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_THAT(log.messages(), ElementsAre("Unable to read configuration: Cannot allocate memory"));
}

TEST(OvnConfStore, GrowsFrom20EntriesByDoubling) {
    conf_data conf;
    EXPECT_EQ(0, conf_init_r(&conf));
    EXPECT_EQ(20U, conf.entries.capacity());
    for (int i = 0; i < 41; ++i) {
        ASSERT_EQ(0, conf_set_r(("N" + std::to_string(i)).c_str(), "v", &conf));
        const std::size_t expected = i < 20 ? 20 : i < 40 ? 40 : 80;
        EXPECT_EQ(expected, conf.entries.capacity()) << i;
    }
    EXPECT_EQ(41U, conf.entries.size());
}

TEST(OvnConfStore, FailsWithENOMEMWhenItCannotGrow) {
    const UtilityLogCapture log;
    conf_data conf;
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(0, conf_set_r(std::to_string(i).c_str(), "v", &conf));
    }
    {
        const AllocationFailure failure(40 * sizeof(conf_entry));
        EXPECT_EQ(-1, conf_set_r("one more", "v", &conf));
        EXPECT_TRUE(AllocationFailure::happened());
    }
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_THAT(log.messages(), ElementsAre("Unable to read configuration: Cannot allocate memory"));
    EXPECT_EQ(20U, conf.entries.size());
    EXPECT_EQ(0, conf_set_r("one more", "v", &conf));
}

TEST(OvnConfStore, KeepsCopies) {
    conf_data conf;
    std::string name = "NAME";
    std::string value = "value";
    ASSERT_EQ(0, conf_set_r(name.c_str(), value.c_str(), &conf));
    name = "OTHER";
    value = "other";
    EXPECT_STREQ("value", conf_get_r("NAME", &conf));
}

TEST(OvnConfStore, FindsValuesBeforeAndAfterItIsFinalized) {
    conf_data conf;
    conf_set_r("Z", "last", &conf);
    conf_set_r("A", "first", &conf);
    EXPECT_STREQ("last", conf_get_r("Z", &conf));
    EXPECT_EQ(nullptr, conf_get_r("M", &conf));
    EXPECT_EQ(0, conf_finalize_r(&conf));
    EXPECT_STREQ("last", conf_get_r("Z", &conf));
    EXPECT_STREQ("first", conf_get_r("A", &conf));
    EXPECT_EQ(nullptr, conf_get_r("M", &conf));
}

TEST(OvnConfStore, FindsWhatWasAddedAfterItWasFinalized) {
    conf_data conf;
    conf_set_r("M", "middle", &conf);
    conf_set_r("Z", "last", &conf);
    conf_finalize_r(&conf);
    conf_set_r("A", "first", &conf);
    EXPECT_STREQ("first", conf_get_r("A", &conf));
    EXPECT_STREQ("middle", conf_get_r("M", &conf));
    EXPECT_STREQ("last", conf_get_r("Z", &conf));
}

TEST(OvnConfStore, KeepsReturnedStringsWhenValuesAreReplacedAndItGrows) {
    conf_data conf;
    conf_set_r("NAME", "old", &conf);
    const char* before = conf_get_r("NAME", &conf);
    conf_set_r("NAME", "new", &conf);
    for (int i = 0; i < 100; ++i) {
        conf_set_r(std::to_string(i).c_str(), "v", &conf);
    }
    conf_finalize_r(&conf);
    EXPECT_STREQ("old", before);
    EXPECT_STREQ("new", conf_get_r("NAME", &conf));
}

TEST(OvnConfStore, IsEmptyAndUsableAfterItWasFreed) {
    conf_data conf;
    conf_set_r("NAME", "value", &conf);
    conf_finalize_r(&conf);
    EXPECT_EQ(0, conf_free_r(&conf));
    EXPECT_EQ(nullptr, conf_get_r("NAME", &conf));
    EXPECT_FALSE(conf.finalized);
    EXPECT_EQ(0, conf_set_r("NAME", "again", &conf));
    EXPECT_STREQ("again", conf_get_r("NAME", &conf));
}

}  // namespace
}  // namespace korva
