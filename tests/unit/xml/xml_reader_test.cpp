// SPDX-License-Identifier: Apache-2.0
#include "xml/xml_reader.h"

#include "support/files.h"
#include "support/temp_dir.h"
#include "xml/xml_wrap.h"

#include <boost/algorithm/string/replace.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/globals.h>
#include <libxml/parser.h>

#include <sys/stat.h>
#include <unistd.h>

namespace korva {
namespace {

using test::TempDir;
using test::writeFile;
using testing::HasSubstr;

/// The messages of libxml2 about the text; what it prints on standard error is a failure.
std::string parseErrors(const std::string& content) {
    testing::internal::CaptureStderr();
    std::string errors = "none";
    try {
        const tXmlDocument document(content);
    } catch (const Exc<&tError_ParseFile>& error) {
        errors = error.what();
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    return errors;
}

int loads = 0;

xmlParserInputPtr countLoad(const char* /*url*/, const char* /*id*/, xmlParserCtxtPtr /*context*/) {
    ++loads;
    return nullptr;
}

/// Counts what libxml2 wants to load beside the document.
class CountedLoads {
  public:
    CountedLoads() : loaderBefore_(xmlGetExternalEntityLoader()) {
        loads = 0;
        xmlSetExternalEntityLoader(&countLoad);
    }
    CountedLoads(const CountedLoads&) = delete;
    CountedLoads& operator=(const CountedLoads&) = delete;
    ~CountedLoads() { xmlSetExternalEntityLoader(loaderBefore_); }

  private:
    xmlExternalEntityLoader loaderBefore_;
};

/// `piece` with the numbers from 0 on in the place of each "#".
std::string numbered(const std::string& piece, int count) {
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += boost::algorithm::replace_all_copy(piece, "#", std::to_string(i));
    }
    return text;
}

std::string inUtf16(const std::string& ascii) {
    std::string text = "\xFF\xFE";
    for (const char c : ascii) {
        text += {c, '\0'};
    }
    return text;
}

/// A thousand million references after ten levels.
std::string billionLaughs(const std::string& kind, const std::string& reference) {
    std::string content = "<!DOCTYPE c [<!ENTITY " + kind + "l0 \"<!-- lol -->\">";
    for (int level = 1; level < 10; ++level) {
        content += "<!ENTITY " + kind + "l" + std::to_string(level) + " \"";
        for (int i = 0; i < 10; ++i) {
            content += reference + "l" + std::to_string(level - 1) + ";";
        }
        content += "\">";
    }
    return content;
}

/// One long entity, used in 20000 places: 4 GB from less than half a megabyte.
std::string quadraticBlowUp(const std::string& before, const std::string& after) {
    std::string content = "<!DOCTYPE c [<!ENTITY a \"" + std::string(200000, 'a') + "\">]><c>";
    const std::string use = before + "&a;" + after;
    for (int i = 0; i < 20000; ++i) {
        content += use;
    }
    return content + "</c>";
}

TEST(XmlReader, ReportsBothMalformedLinesOfAFileInOrder) {
    const TempDir dir;
    const std::string name = dir / "bad.xml";
    writeFile(name, "<a>\nA & B\nC & D\n</a>\n");
    testing::internal::CaptureStderr();
    try {
        const tXmlDocument document(name.c_str());
        ADD_FAILURE();
    } catch (const Exc<&tError_ParseFile>& error) {
        EXPECT_EQ(std::string(error.what()),
                  "The XML file " + name + " was not parsed successfully with the following errors:\n" +
                      name + ":2: parser error : xmlParseEntityRef: no name\nA & B\n   ^\n" + name +
                      ":3: parser error : xmlParseEntityRef: no name\nC & D\n   ^\n");
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(XmlReader, ReportsTheMessagesOfATextInMemory) {
    EXPECT_EQ(parseErrors("<a><b></a>"),
              "The XML file in memory was not parsed successfully with the following errors:\n"
              "Entity: line 1: parser error : Opening and ending tag mismatch: b line 1 and a\n"
              "<a><b></a>\n"
              "          ^\n"
              "Entity: line 1: parser error : Premature end of data in tag a line 1\n"
              "<a><b></a>\n"
              "          ^\n");
}

TEST(XmlReader, RefusesTextsThatAreNotWellFormed) {
    for (const std::string& content :
         {std::string(" "), std::string("text"), std::string("<a>\0</a>", 8), std::string("<a>\xFF</a>"),
          std::string("<a/><b/>"), std::string("<?xml version=\"1.0\" encoding=\"nosuch\"?><a>\xE9</a>")}) {
        EXPECT_NE(parseErrors(content), "none") << content;
    }
}

TEST(XmlReader, DoesNotRepeatMessagesOfAnEarlierParse) {
    parseErrors("<first>");
    EXPECT_THAT(parseErrors("<second>"), Not(HasSubstr("first")));
}

TEST(XmlReader, PrintsNothingForADocumentWithWarnings) {
    EXPECT_EQ(parseErrors("<a:b xmlns='relative'/>"), "none");
}

TEST(XmlReader, PutsTheErrorFunctionBackAfterSuccessAndFailure) {
    const xmlGenericErrorFunc before = xmlGenericError;
    for (const std::string content : {"<a/>", "<a>"}) {
        parseErrors(content);
        EXPECT_EQ(xmlGenericError, before);
        EXPECT_EQ(xmlGenericErrorContext, nullptr);
    }
}

void swallow(void* count, xmlErrorPtr /*error*/) {
    ++*static_cast<int*>(count);
}

TEST(XmlReader, GetsItsMessagesDespiteAStructuredErrorFunction) {
    int count = 0;
    xmlSetStructuredErrorFunc(&count, &swallow);
    const std::string errors = parseErrors("<a>");
    EXPECT_EQ(xmlStructuredError, &swallow);
    EXPECT_EQ(xmlStructuredErrorContext, &count);
    xmlSetStructuredErrorFunc(nullptr, nullptr);
    EXPECT_THAT(errors, HasSubstr("Premature end of data"));
    EXPECT_EQ(count, 0);
}

TEST(XmlReader, EndsABillionLaughsAsAParseError) {
    EXPECT_NE(parseErrors(billionLaughs("", "&") + "]><c>&l9;</c>"), "none");
    EXPECT_NE(parseErrors(billionLaughs("", "&") + "]><c a='&l9;'/>"), "none");
}

TEST(XmlReader, EndsABillionLaughsOfParameterEntitiesAsAParseError) {
    EXPECT_NE(parseErrors(billionLaughs("% ", "&#37;") + " %l9;]><c/>"), "none");
}

TEST(XmlReader, EndsAQuadraticBlowUpInTextAsAParseError) {
    EXPECT_NE(parseErrors(quadraticBlowUp("", "")), "none");
    EXPECT_NE(parseErrors(quadraticBlowUp("<f>", "</f>")), "none");
}

TEST(XmlReader, EndsAQuadraticBlowUpInAttributesAsAParseError) {
    EXPECT_NE(parseErrors(quadraticBlowUp("<f a='", "'/>")), "none");
}

TEST(XmlReader, EndsADefaultValueForManyElementsAsAParseError) {
    EXPECT_NE(parseErrors("<!DOCTYPE c [<!ATTLIST f a CDATA 'value'>]><c><f/><f/></c>"), "none");
    EXPECT_NE(parseErrors("<!DOCTYPE c [<!ATTLIST f a (x|y) 'x'>]><c><f/><f/></c>"), "none");
}

TEST(XmlReader, SaysWhyItRefusesADeclaration) {
    EXPECT_THAT(parseErrors("<!DOCTYPE c [<!ENTITY a 'b'>]><c>&a;</c>"),
                HasSubstr("declarations of entities and attributes are not accepted"));
}

TEST(XmlReader, StopsWithinATagOfVeryManyAttributes) {
    for (const char* attribute : {" a#=''", " xmlns:a#='u'", " x:a#=''"}) {
        const std::string content = "<c xmlns:x='x'" + numbered(attribute, 100'000) + "/>";
        EXPECT_THAT(parseErrors(content), HasSubstr("beyond all measure are not accepted")) << attribute;
        EXPECT_NE(parseErrors(inUtf16(content)), "none") << attribute;
    }
    EXPECT_EQ(parseErrors("<c" + numbered(" a#=''", 500) + numbered(" xmlns:a#='u'", 500) + "/>"), "none");
}

TEST(XmlReader, StopsWithinADeclarationOfManyParts) {
    const std::string before = "<!DOCTYPE c [<!ELEMENT c (";
    EXPECT_THAT(parseErrors(before + numbered("b,", 100'000) + "b)>]><c/>"),
                HasSubstr("beyond all measure are not accepted"));
    EXPECT_EQ(parseErrors(before + numbered("b,", 10'000) + "b)>]><c/>"), "none");
}

TEST(XmlReader, StopsAmongVeryManyNames) {
    EXPECT_THAT(parseErrors("<c>" + numbered("<aaaaaa#/>", 100'000) + "</c>"),
                HasSubstr("beyond all measure are not accepted"));
    EXPECT_EQ(parseErrors("<c>" + numbered("<aaaaaa#/>", 10'000) + "</c>"), "none");
}

TEST(XmlReader, RefusesBombsInFilesAsWell) {
    const TempDir dir;
    writeFile(dir / "bomb.xml", quadraticBlowUp("<f a='", "'/>"));
    EXPECT_THROW(tXmlDocument((dir / "bomb.xml").c_str()), Exc<&tError_ParseFile>);
}

TEST(XmlReader, DoesNotNestWithoutEnd) {
    std::string content;
    for (int depth = 0; depth < 100000; ++depth) {
        content += "<a>";
    }
    EXPECT_THAT(parseErrors(content), HasSubstr("Excessive depth"));
}

TEST(XmlReader, LoadsNoExternalEntity) {
    const CountedLoads counted;
    const TempDir dir;
    writeFile(dir / "secret", "secret");
    EXPECT_NE(parseErrors("<!DOCTYPE c [<!ENTITY a SYSTEM 'file://" + (dir / "secret") + "'>]><c>&a;</c>"),
              "none");
    EXPECT_NE(parseErrors("<!DOCTYPE c [<!ENTITY % a SYSTEM 'file://" + (dir / "secret") + "'> %a;]><c/>"),
              "none");
    EXPECT_EQ(loads, 0);
}

TEST(XmlReader, LoadsNoDocumentType) {
    const CountedLoads counted;
    EXPECT_EQ(parseErrors("<!DOCTYPE c SYSTEM 'http://127.0.0.1/c.dtd'><c/>"), "none");
    EXPECT_EQ(parseErrors("<!DOCTYPE c PUBLIC '-//C//D' 'file:///c.dtd' [<!ELEMENT c ANY>]><c/>"), "none");
    EXPECT_EQ(loads, 0);
}

TEST(XmlReader, IncludesNoOtherDocument) {
    const CountedLoads counted;
    EXPECT_EQ(
        parseErrors("<c xmlns:xi='http://www.w3.org/2001/XInclude'><xi:include href='/etc/passwd'/></c>"),
        "none");
    EXPECT_EQ(loads, 0);
}

TEST(XmlReader, TakesAReferenceToAnEntityOfAnUnreadDocumentTypeForNothing) {
    const CountedLoads counted;
    tXmlDvxDocument document(std::string("<!DOCTYPE c SYSTEM 'c.dtd'><c a='1&x;2'>1&x;2</c>"));
    document.initFileDoc("c");
    EXPECT_EQ(tXmlDvxDocument::getNodeText(document.root()), "12");
    EXPECT_EQ(tXmlDvxDocument::getAttribute(document.root(), "a"), "12");
    EXPECT_EQ(loads, 0);
}

TEST(XmlReader, UnderstandsTheEncodingOfADocument) {
    tXmlDvxDocument document(std::string("<?xml version='1.0' encoding='ISO-8859-1'?><c>\xE9</c>"));
    document.initFileDoc("c");
    EXPECT_EQ(tXmlDvxDocument::getNodeText(document.root()), "\xC3\xA9");
}

TEST(XmlReader, TellsWhatIsConvertedBeforeItIsRead) {
    using namespace std::string_literals;
    for (const std::string& text :
         {"\xFF\xFE<\0a\0/\0>\0"s, "\xFE\xFF\0<\0a\0/\0>"s, "<\0?\0x\0"s, "\0<\0?\0x"s, "\0\0\0<\0\0\0a"s,
          "\x4C\x6F\xA7\x94"s, "<?xml version='1.0' encoding='UTF-7'?><a/>"s,
          "<?xml version='1.0' encoding='ISO-8859-1'?><a>\xE9</b>"s,
          "<?xml version='1.0' encoding='IBM037'?><a"s}) {
        EXPECT_TRUE(isConverted(text)) << testing::PrintToString(text);
    }
    for (const std::string& text :
         {""s, "a"s, "<a/>"s, "<a>\xC3\xA9</b>"s, "\xEF\xBB\xBF<a/>"s, "<?xml version='1.0'?><a/>"s,
          "<?xml version='1.0' encoding='utf-8'?><a>"s, "<a encoding='ISO-8859-1'/>"s, "<a>\0</a>"s}) {
        EXPECT_FALSE(isConverted(text)) << testing::PrintToString(text);
    }
}

TEST(XmlReader, ReportsAFileThatCannotBeOpened) {
    constexpr uid_t kNobody = 65534;
    const TempDir dir;
    const std::string list = dir / "list.xml";
    writeFile(list, "<a/>");
    ASSERT_EQ(::chmod((dir / "").c_str(), 0755), 0);
    ASSERT_EQ(::chmod(list.c_str(), 0), 0);
    ASSERT_EQ(::seteuid(kNobody), 0);
    std::string message;
    try {
        const tXmlDocument document(list.c_str());
    } catch (const Exc<&tError_ParseFile>& error) {
        message = error.what();
    }
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_THAT(message, HasSubstr("following errors:\nPermission denied\n"));
}

}  // namespace
}  // namespace korva
