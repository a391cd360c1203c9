// SPDX-License-Identifier: Apache-2.0
#include "xml/xml_agent_file_list.h"

#include "support/libxml_allocation_failure.h"

#include <boost/lexical_cast.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <exception>
#include <limits>

namespace korva {
namespace {

using testing::ElementsAre;
using testing::FieldsAre;

std::unique_ptr<AgentFileList> listOf(const std::string& files) {
    return getFileList("<contentlist size='1' unpacked='2'>" + files + "</contentlist>");
}

std::unique_ptr<AgentFileList> listOfSize(const std::string& size) {
    return getFileList("<contentlist size='" + size + "' unpacked='" + size + "'/>");
}

TEST(ContentList, GivesItsFilesInDocumentOrder) {
    const auto list = getFileList(
        "<?xml version=\"1.0\"?>\n"
        "<contentlist size=\"300\" unpacked=\"1000\">\n"
        "  <file size=\"200\" md5sum=\"d41d8cd98f00b204e9800998ecf8427e\">clients/b.tgz</file>\n"
        "  <file size=\"100\" md5sum=\"900150983cd24fb0d6963f7d28e17f72\">clients/a &amp; c.tgz</file>\n"
        "</contentlist>\n");
    EXPECT_THAT(list->getFileList(),
                ElementsAre(FieldsAre("clients/b.tgz", 200, "d41d8cd98f00b204e9800998ecf8427e", true),
                            FieldsAre("clients/a & c.tgz", 100, "900150983cd24fb0d6963f7d28e17f72", true)));
    EXPECT_EQ(list->getTotalSize(), 300U);
    EXPECT_EQ(list->getUnpackedSize(), 1000U);
}

TEST(ContentList, MayBeEmpty) {
    EXPECT_THAT(listOf("")->getFileList(), ElementsAre());
}

TEST(ContentList, TakesAMissingSizeForZero) {
    EXPECT_THAT(listOf("<file md5sum='aa'>f</file>")->getFileList(),
                ElementsAre(FieldsAre("f", 0, "aa", false)));
}

TEST(ContentList, TakesAMissingSumForAnEmptyOne) {
    EXPECT_THAT(listOf("<file size='5'>f</file>")->getFileList(), ElementsAre(FieldsAre("f", 5, "", true)));
}

TEST(ContentList, IgnoresWhatIsNoFileElement) {
    EXPECT_THAT(
        listOf("text<!-- c --><?pi file?><![CDATA[x]]><dir size='bad'><file>inner</file></dir><files/>"
               "<file>f</file>")
            ->getFileList(),
        ElementsAre(FieldsAre("f", 0, "", false)));
}

TEST(ContentList, KeepsBlanksInNames) {
    EXPECT_THAT(listOf("<file> a\n b </file>")->getFileList(),
                ElementsAre(FieldsAre(" a\n b ", 0, "", false)));
}

TEST(ContentList, TakesTheLargestSizes) {
    EXPECT_THAT(listOf("<file size='9223372036854775807'>f</file>")->getFileList(),
                ElementsAre(FieldsAre("f", std::numeric_limits<std::int64_t>::max(), "", true)));
    EXPECT_EQ(listOfSize("18446744073709551615")->getTotalSize(), std::numeric_limits<std::uint64_t>::max());
}

TEST(ContentList, RefusesFileSizesThatAreNoNumbers) {
    for (const std::string size : {"12abc", "", " 5", "5 ", "0x10", "1.5", "9223372036854775808"}) {
        EXPECT_THROW(listOf("<file size='" + size + "'>f</file>"), boost::bad_lexical_cast) << size;
    }
}

TEST(ContentList, RefusesTotalsThatAreNoNumbersWhenTheyAreAskedFor) {
    for (const std::string size : {"12abc", "", " 5", "5 ", "-1", "18446744073709551616"}) {
        const auto list = listOfSize(size);
        EXPECT_THROW(list->getTotalSize(), boost::bad_lexical_cast) << size;
        EXPECT_THROW(list->getUnpackedSize(), boost::bad_lexical_cast) << size;
    }
}

TEST(ContentList, NamesTheTotalThatIsMissing) {
    const auto list = getFileList("<contentlist/>");
    try {
        list->getTotalSize();
        FAIL();
    } catch (const Exc<&NoSuchAttribute>& error) {
        EXPECT_STREQ(error.what(), "Node contentlist does not have attribute size");
    }
    try {
        list->getUnpackedSize();
        FAIL();
    } catch (const Exc<&NoSuchAttribute>& error) {
        EXPECT_STREQ(error.what(), "Node contentlist does not have attribute unpacked");
    }
}

TEST(ContentList, RefusesAnEmptyText) {
    EXPECT_THROW(getFileList(""), Exc<&AssertionFailed>);
}

TEST(ContentList, RefusesATextThatIsNotWellFormed) {
    EXPECT_THROW(getFileList("<contentlist>"), Exc<&tError_ParseFile>);
    EXPECT_THROW(getFileList("Can't locate Storage.pm in @INC"), Exc<&tError_ParseFile>);
}

TEST(ContentList, RefusesAnotherDocument) {
    EXPECT_THROW(getFileList("<foo/>"), Exc<&tError_WrongDoc>);
}

TEST(ContentList, RefusesTheNameOfAFileForAText) {
    EXPECT_THROW(getFileList("/etc/passwd"), Exc<&tError_ParseFile>);
}

TEST(ContentList, LoadsNoFileOfThisHostIntoAName) {
    EXPECT_THROW(getFileList("<!DOCTYPE contentlist [<!ENTITY x SYSTEM 'file:///etc/passwd'>]>"
                             "<contentlist size='1'><file>&x;</file></contentlist>"),
                 Exc<&tError_ParseFile>);
}

TEST(ContentList, ReadsReferencesInNamesAndValues) {
    EXPECT_THAT(
        listOf(
            "<file md5sum='a&amp;b&lt;&#38;&#x26;#38;&quot;'>a&amp;b&#38;&#x20AC;<![CDATA[&amp;<]]></file>")
            ->getFileList(),
        ElementsAre(FieldsAre("a&b&\xE2\x82\xAC&amp;<", 0, "a&b<&&#38;\"", false)));
}

TEST(ContentList, LeavesOutWhatIsInElementsBelowAFile) {
    EXPECT_THAT(
        listOf("<file>a<b>x<file size='bad'>y</file></b>b<!-- c -->c<?pi?>d</file><file/>")->getFileList(),
        ElementsAre(FieldsAre("abcd", 0, "", false), FieldsAre("", 0, "", false)));
}

TEST(ContentList, LooksAtNamesWithoutTheirPrefixAndAtAttributesWithoutOne) {
    EXPECT_THAT(getFileList("<x:contentlist xmlns:x='u' x:size='7' size='1'><x:file x:size='3' size='2' "
                            "x:md5sum='b'>f</x:file></x:contentlist>")
                    ->getFileList(),
                ElementsAre(FieldsAre("f", 2, "", true)));
}

TEST(ContentList, UnderstandsOtherEncodings) {
    EXPECT_THAT(getFileList("<?xml version='1.0' encoding='ISO-8859-1'?><contentlist>"
                            "<file md5sum='\xE9'>\xE9</file></contentlist>")
                    ->getFileList(),
                ElementsAre(FieldsAre("\xC3\xA9", 0, "\xC3\xA9", false)));
}

TEST(ContentList, TakesAReferenceToAnUndeclaredEntityForNothing) {
    EXPECT_THAT(getFileList("<!DOCTYPE contentlist SYSTEM 'list.dtd'><contentlist>"
                            "<file md5sum='1&x;2'>1&x;2</file></contentlist>")
                    ->getFileList(),
                ElementsAre(FieldsAre("12", 0, "12", false)));
    EXPECT_THROW(listOf("<file>&x;</file>"), Exc<&tError_ParseFile>);
}

TEST(ContentList, TellsThatItIsNotWellFormedBeforeAnythingElse) {
    EXPECT_THROW(getFileList("<foo><file size='bad'/>"), Exc<&tError_ParseFile>);
    EXPECT_THROW(getFileList("<foo><file size='bad'/></foo>"), Exc<&tError_WrongDoc>);
}

TEST(ContentList, RefusesMoreFilesThanAnybodyHas) {
    std::string files;
    for (int i = 0; i < 500'001; ++i) {
        files += "<file/>";
    }
    try {
        listOf(files);
        FAIL();
    } catch (const Exc<&tError_WrongContent>& error) {
        EXPECT_STREQ(error.what(), "The content list names more than 500000 files.");
    }
}

/// "a0='' a1='' …", or with another start of each name.
std::string attributes(int count, const std::string& start = "a") {
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += " " + start + std::to_string(i) + "='x'";
    }
    return text;
}

TEST(ContentList, MayHaveAThousandAttributesInATagAndNoMore) {
    const auto list = getFileList("<contentlist" + attributes(998) + " size='1' unpacked='2'><file" +
                                  attributes(500, "xmlns:n") + attributes(498) +
                                  " size='3' md5sum='aa'>f</file></contentlist>");
    EXPECT_EQ(list->getTotalSize(), 1U);
    EXPECT_EQ(list->getUnpackedSize(), 2U);
    EXPECT_THAT(list->getFileList(), ElementsAre(FieldsAre("f", 3, "aa", true)));
    EXPECT_THROW(getFileList("<contentlist" + attributes(1001) + "/>"), Exc<&tError_ParseFile>);
    EXPECT_THROW(listOf("<file" + attributes(1001) + "/>"), Exc<&tError_ParseFile>);
    EXPECT_THROW(listOf("<file" + attributes(501, "xmlns:n") + attributes(500) + "/>"),
                 Exc<&tError_ParseFile>);
    EXPECT_THROW(listOf("<other><file" + attributes(1001, "xmlns:n") + "/></other>"), Exc<&tError_ParseFile>);
}

TEST(ContentList, IsWholeOrRefusedWhateverThereIsNoMemoryFor) {
    const std::string content =
        "<contentlist size='1' unpacked='2'><file" + attributes(20, "b") +
        " size='3' md5sum='a&lt;a'>a&amp;b</file><file size='4' md5sum='bb'>g</file></contentlist>";
    int number = 0;
    for (bool happens = true; happens;) {
        const test::LibxmlAllocationFailure failure(++number);
        try {
            const auto list = getFileList(content);
            EXPECT_THAT(list->getFileList(),
                        ElementsAre(FieldsAre("a&b", 3, "a<a", true), FieldsAre("g", 4, "bb", true)));
            EXPECT_EQ(list->getTotalSize(), 1U);
        } catch (const std::exception&) {
        }
        happens = test::LibxmlAllocationFailure::happened();
    }
    EXPECT_GT(number, 20);
}

TEST(ContentList, RefusesABillionLaughs) {
    std::string content = "<!DOCTYPE contentlist [<!ENTITY l0 'lol'>";
    for (int level = 1; level < 10; ++level) {
        content += "<!ENTITY l" + std::to_string(level) + " '";
        for (int i = 0; i < 10; ++i) {
            content += "&l" + std::to_string(level - 1) + ";";
        }
        content += "'>";
    }
    EXPECT_THROW(getFileList(content + "]><contentlist><file>&l9;</file></contentlist>"),
                 Exc<&tError_ParseFile>);
}

TEST(ContentList, RefusesAQuadraticBlowUpOfNamesAndSums) {
    const std::string entity =
        "<!DOCTYPE contentlist [<!ENTITY x '" + std::string(200000, 'x') + "'>]><contentlist>";
    const std::string value = "<!DOCTYPE contentlist [<!ATTLIST file md5sum CDATA '" +
                              std::string(200000, 'x') + "'>]><contentlist>";
    std::string names;
    std::string sums;
    std::string defaultSums;
    for (int i = 0; i < 20000; ++i) {
        names += "<file>&x;</file>";
        sums += "<file md5sum='&x;'/>";
        defaultSums += "<file/>";
    }
    EXPECT_THROW(getFileList(entity + names + "</contentlist>"), Exc<&tError_ParseFile>);
    EXPECT_THROW(getFileList(entity + sums + "</contentlist>"), Exc<&tError_ParseFile>);
    EXPECT_THROW(getFileList(value + defaultSums + "</contentlist>"), Exc<&tError_ParseFile>);
}

}  // namespace
}  // namespace korva
