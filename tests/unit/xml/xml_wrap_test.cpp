// SPDX-License-Identifier: Apache-2.0
#include "xml/xml_wrap.h"

#include "commons/filesystem.h"
#include "support/files.h"
#include "support/libxml_allocation_failure.h"
#include "support/temp_dir.h"
#include "xml/libxml_scope.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace korva {
namespace {

using test::TempDir;
using test::writeFile;

/// The message of the error of kind `Tag` that `body` throws.
template <ErrorKind (*Tag)(bool), typename Body>
std::string messageOf(Body body) {
    try {
        body();
    } catch (const Exc<Tag>& error) {
        return error.what();
    }
    return "no such error";
}

class Document : public tXmlDvxDocument {
  public:
    Document() { initNewDoc("root"); }
    explicit Document(const std::string& content) : tXmlDvxDocument(content) { initFileDoc("root"); }

    /// Without the line of the XML declaration.
    std::string text() const {
        std::ostringstream stream;
        saveToStream(stream);
        const std::string bytes = stream.str();
        return bytes.substr(bytes.find('\n') + 1);
    }
};

TEST(ReadXmlFile, ReadsTheDocument) {
    const TempDir dir;
    writeFile(dir / "list.xml", "<contentlist size=\"5\"/>");
    tXmlDvxDocument document((dir / "list.xml").c_str());
    document.initFileDoc("contentlist");
    EXPECT_EQ(tXmlDvxDocument::getAttribute(document.root(), "size"), "5");
}

TEST(ReadXmlFile, TakesAPathObjectForAFileName) {
    const TempDir dir;
    writeFile(dir / "list.xml", "<contentlist/>");
    const tXmlDocument document(std::filesystem::path(dir / "list.xml"));
    EXPECT_NE(xmlDocGetRootElement(document.doc().get()), nullptr);
}

TEST(ReadXmlFile, TakesAnOddNameAsItIsWritten) {
    const TempDir dir;
    const std::string name = dir / "http:%41?a b#c.xml";
    writeFile(name, "<contentlist/>");
    const tXmlDocument document(name.c_str());
    EXPECT_NE(xmlDocGetRootElement(document.doc().get()), nullptr);
}

TEST(ReadXmlFile, RefusesADirectoryByName) {
    const TempDir dir;
    EXPECT_EQ(messageOf<&tError_WrongInputFile>([&] { const tXmlDocument document(dir.path().c_str()); }),
              "The XML file does not exist or is not a regular file. Check the file '" + dir.path() + "'");
}

TEST(ReadXmlFile, RefusesAMissingFileByName) {
    const TempDir dir;
    const std::string name = dir / "missing.xml";
    EXPECT_EQ(messageOf<&tError_WrongInputFile>([&] { const tXmlDocument document(name.c_str()); }),
              "The XML file does not exist or is not a regular file. Check the file '" + name + "'");
}

TEST(ReadXmlFile, AssertsThatThereIsAName) {
    EXPECT_EQ(
        messageOf<&AssertionFailed>([] { const tXmlDocument document(static_cast<const char*>(nullptr)); }),
        "Assertion failed: filename != NULL");
    EXPECT_EQ(messageOf<&AssertionFailed>([] { const tXmlDocument document(""); }),
              "Assertion failed: *filename != 0");
}

TEST(ReadXmlFile, KeepsTheOldDocumentWhenTheNewOneCannotBeRead) {
    const TempDir dir;
    writeFile(dir / "bad.xml", "<a>");
    Document document;
    EXPECT_THROW(document.readFromFile((dir / "bad.xml").c_str()), Exc<&tError_ParseFile>);
    EXPECT_EQ(document.text(), "<root/>\n");
}

TEST(ParseXmlText, AssertsThatThereIsAText) {
    EXPECT_EQ(messageOf<&AssertionFailed>([] { const tXmlDocument document{std::string()}; }),
              "Assertion failed: content.size()");
}

TEST(NewXmlDocument, IsEmptyAndOfVersion10) {
    const tXmlDocument document;
    EXPECT_EQ(xmlDocGetRootElement(document.doc().get()), nullptr);
    EXPECT_STREQ(reinterpret_cast<const char*>(document.doc()->version), "1.0");
}

TEST(InitFileDoc, NamesTheFoundAndTheExpectedRootWhenTheyDiffer) {
    const TempDir dir;
    writeFile(dir / "foo.xml", "<foo/>");
    tXmlDvxDocument document((dir / "foo.xml").c_str());
    EXPECT_EQ(messageOf<&tError_WrongDoc>([&] { document.initFileDoc("contentlist"); }),
              "The document has the wrong type, root node is <foo>, but <contentlist> was expected");
    EXPECT_EQ(document.root(), nullptr);
}

TEST(InitFileDoc, NamesTheExpectedRootOfAnEmptyDocument) {
    tXmlDvxDocument document;
    EXPECT_EQ(messageOf<&tError_EmptyDoc>([&] { document.initFileDoc("contentlist"); }),
              "The document is empty. Can not find root element <contentlist>");
}

TEST(InitFileDoc, RemembersTheRoot) {
    tXmlDvxDocument document(std::string("<!-- before --><contentlist/>"));
    document.initFileDoc("contentlist");
    EXPECT_TRUE(tXmlDvxDocument::stringEq(document.root()->name, "contentlist"));
}

TEST(XmlNodes, AreAppendedInOrder) {
    Document document;
    xmlNodePtr first = document.newChild(document.root(), "first");
    document.newTextChild(first, "inner", "text");
    document.newText(first, "tail");
    document.newCDataBlock(document.root(), "a < b");
    EXPECT_EQ(document.text(), "<root><first><inner>text</inner>tail</first><![CDATA[a < b]]></root>\n");
}

TEST(XmlNodes, TextIsEscapedExactlyOnce) {
    Document document;
    document.newTextChild(document.root(), "child", "<&>\"' &amp; &#65; &nosuch; &lt");
    document.newText(document.root(), "& &amp;");
    EXPECT_EQ(document.text(),
              "<root><child>&lt;&amp;&gt;\"' &amp;amp; &amp;#65; &amp;nosuch; &amp;lt</child>&amp; "
              "&amp;amp;</root>\n");
}

TEST(XmlNodes, AttributeValuesAreEscapedExactlyOnce) {
    Document document;
    document.addAttribute(document.root(), "value", "<&>\"' &amp; &#65; &nosuch; a\nb\tc");
    EXPECT_EQ(document.text(),
              "<root value=\"&lt;&amp;&gt;&quot;' &amp;amp; &amp;#65; &amp;nosuch; a&#10;b&#9;c\"/>\n");
}

TEST(XmlNodes, TextAndValuesComeBackAsTheyWereGiven) {
    const std::string value = "<&>\"' &amp; &#65; ]]> a\r\n\tb \xC3\xA9\xF0\x9F\x98\x80";
    Document written;
    written.newTextChild(written.root(), "child", value);
    written.newCDataBlock(written.newChild(written.root(), "cdata"), "]]>" + value);
    written.addAttribute(written.root(), "value", value);
    std::ostringstream stream;
    written.saveToStream(stream);

    Document read(stream.str());
    EXPECT_EQ(Document::getNodeText(read.getRootNodeChild("child")), value);
    EXPECT_EQ(Document::getAttribute(read.root(), "value"), value);
    // A CDATA section cannot hold a character reference, so a reader sees its line ends as XML has them.
    EXPECT_EQ(Document::getNodeText(read.getRootNodeChild("cdata")),
              "]]><&>\"' &amp; &#65; ]]> a\n\tb \xC3\xA9\xF0\x9F\x98\x80");
}

TEST(XmlNodes, WhatXmlCannotHoldBecomesTheReplacementCharacter) {
    Document document;
    document.newTextChild(document.root(), "child", std::string("a\0b\x01 \xFF", 6));
    document.newText(document.root(), "\xC3");
    document.newCDataBlock(document.root(), "\x1B[m");
    document.addAttribute(document.root(), "value", "\xEF\xBF\xBF");
    EXPECT_EQ(document.text(),
              "<root value=\"&#xFFFD;\"><child>a&#xFFFD;b&#xFFFD; &#xFFFD;</child>&#xFFFD;"
              "<![CDATA[\xEF\xBF\xBD[m]]></root>\n");
}

TEST(XmlNodes, TextChildWithoutAParentIsNotMade) {
    Document document;
    EXPECT_EQ(document.newTextChild(nullptr, "pid", "1"), nullptr);
    EXPECT_EQ(document.text(), "<root/>\n");
}

TEST(XmlNodes, TextChildOfAnEmptyTextHasBothTags) {
    Document document;
    document.newTextChild(document.root(), "host", "");
    EXPECT_EQ(document.text(), "<root><host></host></root>\n");
}

TEST(XmlNodes, ChildTakesNoNamespaceFromItsParent) {
    Document document(std::string("<root xmlns=\"urn:x\"/>"));
    EXPECT_EQ(document.newChild(document.root(), "child")->ns, nullptr);
}

TEST(XmlNodes, SecondValueOfAnAttributeReplacesTheFirst) {
    Document document;
    document.addAttribute(document.root(), "a", "1");
    document.addAttribute(document.root(), "b", "2");
    document.addAttribute(document.root(), "a", "3");
    EXPECT_EQ(document.text(), "<root a=\"3\" b=\"2\"/>\n");
}

TEST(XmlNodes, AdjacentTextsAreOneNode) {
    Document document;
    xmlNodePtr first = document.newText(document.root(), "a");
    EXPECT_EQ(document.newText(document.root(), "b"), first);
    EXPECT_EQ(Document::getNodeText(document.root()), "ab");
}

/// libxml2 gets no memory while it lives.
class NoMemoryForLibxml2 {
  public:
    NoMemoryForLibxml2() {
        xmlMemGet(&free_, &malloc_, &realloc_, &strdup_);
        xmlMemSetup(
            free_, [](std::size_t) -> void* { return nullptr; },
            [](void*, std::size_t) -> void* { return nullptr; },
            [](const char*) -> char* { return nullptr; });
    }
    NoMemoryForLibxml2(const NoMemoryForLibxml2&) = delete;
    NoMemoryForLibxml2& operator=(const NoMemoryForLibxml2&) = delete;
    ~NoMemoryForLibxml2() { xmlMemSetup(free_, malloc_, realloc_, strdup_); }

  private:
    xmlFreeFunc free_ = nullptr;
    xmlMallocFunc malloc_ = nullptr;
    xmlReallocFunc realloc_ = nullptr;
    xmlStrdupFunc strdup_ = nullptr;
};

TEST(XmlNodes, TellThatThereIsNoMemoryForThem) {
    tXmlDvxDocument document;
    document.initNewDoc("r");
    const LibxmlScope libxml;  // it has its own words for it
    const NoMemoryForLibxml2 none;
    EXPECT_THROW(document.newChild(document.root(), "n"), Exc<&tError_XmlInternal>);
    EXPECT_THROW(document.newTextChild(document.root(), "n", "text"), Exc<&tError_XmlInternal>);
    EXPECT_THROW(document.newText(document.root(), "text"), Exc<&tError_XmlInternal>);
    EXPECT_THROW(document.addAttribute(document.root(), "a", "value"), Exc<&tError_XmlInternal>);
    EXPECT_THROW(document.createNewDoc(), Exc<&tError_XmlInternal>);
}

TEST(NodeText, HasEntitiesSubstituted) {
    const Document document("<root>a&lt;b&amp;c&#x41;&quot;<![CDATA[&lt;]]>d</root>");
    EXPECT_EQ(Document::getNodeText(document.root()), "a<b&cA\"&lt;d");
}

TEST(NodeText, LeavesOutWhatIsInElementsBelow) {
    const Document document("<root>a<!-- c --><b>inner</b>d</root>");
    EXPECT_EQ(Document::getNodeText(document.root()), "ad");
}

TEST(NodeText, IsEmptyWithoutChildren) {
    const Document document("<root/>");
    EXPECT_EQ(Document::getNodeText(document.root()), "");
}

TEST(NodeText, OfAMillionPiecesTakesNoQuadraticTime) {
    std::string content = "<root>";
    for (int i = 0; i < 1000000; ++i) {
        content += "x<!---->";
    }
    const Document document(content + "</root>");
    EXPECT_EQ(Document::getNodeText(document.root()), std::string(1000000, 'x'));
}

TEST(XmlAttribute, MayBeEmpty) {
    const Document document("<root size=''/>");
    EXPECT_EQ(Document::getAttribute(document.root(), "size"), "");
}

TEST(XmlAttribute, OfAnotherNamespaceIsNotTaken) {
    const Document document("<root xmlns:x='urn:x' x:size='1'/>");
    EXPECT_EQ(Document::findAttribute(document.root(), "size"), std::nullopt);
}

TEST(XmlAttribute, IsNotMissingForWantOfMemory) {
    const Document document("<root size='5'/>");
    const test::LibxmlAllocationFailure failure;
    EXPECT_EQ(Document::findAttribute(document.root(), "size"), "5");
}

TEST(XmlAttribute, NamesNodeAndAttributeWhenThereIsNone) {
    const Document document("<root/>");
    EXPECT_EQ(messageOf<&NoSuchAttribute>([&] { Document::getAttribute(document.root(), "size"); }),
              "Node root does not have attribute size");
}

TEST(RootNodeChild, IsTheFirstOfThatName) {
    const Document document("<root>text<b/><a n='1'/><a n='2'/></root>");
    EXPECT_EQ(Document::getAttribute(document.getRootNodeChild("a"), "n"), "1");
}

TEST(RootNodeChild, NamesElementAndRootWhenThereIsNone) {
    const Document document("<root><b><a/></b></root>");
    EXPECT_EQ(messageOf<&tError_WrongContent>([&] { document.getRootNodeChild("a"); }),
              "Can not find 'a' element in 'root' element.");
}

TEST(XmlStringEquality, ComparesWholeTexts) {
    const auto* text = reinterpret_cast<const xmlChar*>("abc");
    EXPECT_TRUE(tXmlDvxDocument::stringEq(text, "abc"));
    EXPECT_FALSE(tXmlDvxDocument::stringEq(text, "ab"));
    EXPECT_FALSE(tXmlDvxDocument::stringEq(text, "ABC"));
    EXPECT_FALSE(tXmlDvxDocument::stringEq(nullptr, ""));
}

}  // namespace
}  // namespace korva
