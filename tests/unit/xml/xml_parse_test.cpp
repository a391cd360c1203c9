// SPDX-License-Identifier: Apache-2.0
#include "xml/xml_parse.h"

#include "support/libxml_allocation_failure.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <vector>

namespace korva {
namespace {

using test::LibxmlAllocationFailure;
using testing::ElementsAre;

constexpr const char* kSourceName = "./xml_parse_test";

std::vector<std::string> reportedErrors;

void report(const ExTraceable& error) {
    reportedErrors.emplace_back(error.what());
}

/// Notes the text of each node that it is given.
class NotingOperator : public tXmlOperator {
  public:
    void act(xmlNodePtr node) override { texts.push_back(tXmlDvxDocument::getNodeText(node)); }

    std::vector<std::string> texts;
};

/// Fails at the node with the text "2".
template <typename Error>
class FailingOperator : public NotingOperator {
  public:
    explicit FailingOperator(const Error& error) : error_(error) {}
    void act(xmlNodePtr node) override {
        NotingOperator::act(node);
        if (texts.back() == "2") {
            throw Error(error_);
        }
    }

  private:
    Error error_;
};

class Xml : public testing::Test {
  protected:
    Xml() : document(std::string("<r><n>1</n><m a='x'/><n>2</n><n>3</n></r>")) {
        document.initFileDoc("r");
        reportedErrors.clear();
    }

    tXPathExpr xpath(const std::string& expression) const { return {document, expression, document.root()}; }

    tXmlDvxDocument document;
};

class XmlChild : public Xml {};
class XPath : public Xml {};
class ForeachXmlNode : public Xml {};

TEST_F(XmlChild, IsTheFirstElementOfThatName) {
    EXPECT_EQ(tXmlDvxDocument::getNodeText(getXmlChild(document.root(), "n")), "1");
}

TEST_F(XmlChild, IsNullWhenThereIsNone) {
    EXPECT_EQ(getXmlChild(document.root(), "r"), nullptr);
}

TEST_F(XmlChild, AssertsThatThereIsANode) {
    try {
        getXmlChild(nullptr, "n");
        FAIL();
    } catch (const Exc<&AssertionFailed>& error) {
        EXPECT_STREQ(error.what(), "Assertion failed: node != NULL");
    }
}

TEST_F(XPath, ResultConvertsToAStringByTheRulesOfXPath) {
    EXPECT_EQ(xpath("/r/n").str(), "1");
    EXPECT_EQ(xpath("count(/r/n)").str(), "3");
    EXPECT_EQ(xpath("/r/m/@a").str(), "x");
    EXPECT_EQ(xpath("/r/nosuch").str(), "");
}

TEST_F(XPath, ResultIsTrueWhenThereIsSuchANode) {
    EXPECT_TRUE(xpath("/r/n"));
    EXPECT_FALSE(xpath("/r/nosuch"));
}

TEST_F(XPath, RelativeExpressionStartsAtTheContextNode) {
    EXPECT_EQ(tXPathExpr(document, "@a", getXmlChild(document.root(), "m")).str(), "x");
}

TEST_F(XPath, ExpressionThatCannotBeEvaluatedIsNamed) {
    for (const std::string expression : {"/r/[", "nosuch()", "/r/n/text(", "$undefined"}) {
        testing::internal::CaptureStderr();
        try {
            xpath(expression);
            ADD_FAILURE() << expression;
        } catch (const Exc<&tError_XPath_CantEvaluate>& error) {
            EXPECT_EQ(error.what(),
                      "The XML document is invalid for XPath exception.\n"
                      "Can not evaluate result of expression '" +
                          expression + "'");
        }
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    }
}

TEST_F(XPath, ResultOutlivesTheDocumentObject) {
    auto parsed = std::make_unique<tXmlDocument>(std::string("<a>text</a>"));
    const tXPathExpr expression(*parsed, "/a", nullptr);
    parsed.reset();
    EXPECT_EQ(expression.str(), "text");
}

TEST_F(XPath, StringIsNotEmptyForWantOfMemory) {
    for (const std::string expression : {"/r/m/@a", "/r/n", "count(/r/n)", "string(/r/n)"}) {
        const tXPathExpr evaluated = xpath(expression);
        const LibxmlAllocationFailure failure;
        EXPECT_THROW(evaluated.str(), std::bad_alloc) << expression;
    }
    EXPECT_EQ(xpath("/r/m/@a").str(), "x");
}

TEST_F(XPath, ResultIsWholeOrAnErrorWhereMemoryDoesNotSuffice) {
    bool failed = true;
    for (int number = 1; failed; ++number) {
        const LibxmlAllocationFailure failure(number);
        try {
            const tXPathExpr names = xpath("/r/n/text() | /r/m/@a");
            ASSERT_EQ(names.result()->nodesetval->nodeNr, 4) << number;
        } catch (const std::bad_alloc&) {
        } catch (const ExTraceable&) {
        }
        failed = LibxmlAllocationFailure::happened();
    }
}

TEST_F(ForeachXmlNode, VisitsTheNodesInDocumentOrder) {
    NotingOperator noting;
    EXPECT_EQ(foreach_xmlnode(xpath("/r/n[3] | /r/n[1] | /r/n[2]"), noting, &report), 1);
    EXPECT_THAT(noting.texts, ElementsAre("1", "2", "3"));

    NotingOperator backwards;
    foreach_xmlnode(xpath("/r/n[3]/preceding-sibling::n"), backwards, &report);
    EXPECT_THAT(backwards.texts, ElementsAre("1", "2"));
}

TEST_F(ForeachXmlNode, RefusesAStringForASetOfNodes) {
    NotingOperator noting;
    try {
        foreach_xmlnode(xpath("string(/r)"), noting, &report);
        FAIL();
    } catch (const Exc<&tError_XPath_TypesMismatch>& error) {
        EXPECT_STREQ(error.what(), "The result of expression 'string(/r)' is not a 'nodeset' type");
    }
    EXPECT_THAT(noting.texts, ElementsAre());
}

TEST_F(ForeachXmlNode, DoesNothingForAnEmptySet) {
    NotingOperator noting;
    EXPECT_EQ(foreach_xmlnode(xpath("/r/nosuch"), noting, &report), 1);
    EXPECT_THAT(noting.texts, ElementsAre());
    EXPECT_THAT(reportedErrors, ElementsAre());
}

TEST_F(ForeachXmlNode, ReportsAMissingSetAndReturnsZero) {
    const tXPathExpr expression = xpath("/r/n");
    xmlXPathFreeNodeSet(expression.result()->nodesetval);
    expression.result()->nodesetval = nullptr;
    NotingOperator noting;
    EXPECT_EQ(foreach_xmlnode(expression, noting, &report), 0);
    EXPECT_THAT(reportedErrors, ElementsAre("Can not evaluate XPath expression: /r/n"));
}

TEST_F(ForeachXmlNode, ReportsAnErrorAtTheSecondNodeOnceAndStillVisitsTheThird) {
    FailingOperator failing(KORVA_EXC(NoSuchAttribute) % "n" % "size");
    EXPECT_EQ(foreach_xmlnode(xpath("/r/n"), failing, &report), 1);
    EXPECT_THAT(failing.texts, ElementsAre("1", "2", "3"));
    EXPECT_THAT(reportedErrors, ElementsAre("Node n does not have attribute size"));
}

TEST_F(ForeachXmlNode, LetsOtherExceptionsPass) {
    FailingOperator failing(std::runtime_error("other"));
    EXPECT_THROW(foreach_xmlnode(xpath("/r/n"), failing, &report), std::runtime_error);
    EXPECT_THAT(failing.texts, ElementsAre("1", "2"));
    EXPECT_THAT(reportedErrors, ElementsAre());
}

TEST(LibxmlErrorHandler, AppendsFormattedMessagesOfAnyLength) {
    std::string messages = "before ";
    const std::string longText(100000, 'x');
    libxmlErrorHandler(&messages, "%s=%d", "n", 5);
    libxmlErrorHandler(&messages, "%s", "");
    libxmlErrorHandler(&messages, "[%s]", longText.c_str());
    EXPECT_EQ(messages, "before n=5[" + longText + "]");
}

TEST(LibxmlErrorHandler, DropsWhatComesAfterMoreThanAnybodyReads) {
    std::string messages(65536, 'x');
    libxmlErrorHandler(&messages, "%s", "still");
    libxmlErrorHandler(&messages, "%s", "too much");
    EXPECT_EQ(messages, std::string(65536, 'x') + "still");
}

}  // namespace
}  // namespace korva
