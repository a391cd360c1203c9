// SPDX-License-Identifier: Apache-2.0
#include "xml/message_formatters.h"

#include "example_errors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace korva {
namespace {

using test::ExampleInner;
using test::ExampleOuter;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

/// The element "message" that `error` is rendered into.
std::string xmlOf(const ExTraceable& error) {
    tXmlDvxDocument document;
    document.initNewDoc("message");
    XmlMsgFormatter formatter(document, document.root());
    error.accept(formatter);
    std::ostringstream stream;
    document.saveToStream(stream);
    const std::string bytes = stream.str();
    return bytes.substr(bytes.find('\n') + 1);
}

TEST(PlainTextMessage, IsOneRecordForAnErrorWithoutACause) {
    const auto error = test::innerError();
    EXPECT_EQ(formatPlainTextMessage(error), "ExampleInner[" + error.id() +
                                                 "]: Cannot read dump.xml: No such file or directory "
                                                 "[./reader:12]\nvoid reader()");
    EXPECT_THAT(formatPlainTextMessage(error), Not(HasSubstr("Inner exception")));
}

TEST(PlainTextMessage, KeepsTheNulOfTheIdentifier) {
    const auto error = test::innerError();
    const std::string text = formatPlainTextMessage(error);
    ASSERT_EQ(error.id().size(), 37U);
    EXPECT_EQ(text.substr(std::string("ExampleInner[").size(), 38), error.id().substr(0, 36) + '\0' + ']');
}

TEST(PlainTextMessage, HasARecordForEachIncludedErrorOutermostFirst) {
    const auto middle = test::outerError();
    const auto outer = Exc<&ExampleOuter>("int main()", "./main", 56, middle) % "migration";
    EXPECT_EQ(formatPlainTextMessage(outer),
              "ExampleOuter[" + outer.id() + "]: Error during migration [./main:56]\nint main()" +
                  "\nInner exception:\n" + "ExampleOuter[" + middle.id() +
                  "]: Error during dump retrieval [./actions:34]\nvoid action()" + "\nInner exception:\n" +
                  "ExampleInner[" + middle.inner()->id() +
                  "]: Cannot read dump.xml: No such file or directory [./reader:12]\nvoid reader()");
}

TEST(PlainTextMessage, TakesPercentSignsAsTheyAre) {
    const auto error = Exc<&ExampleOuter>("void f(%1%)", "./%2%", 1) % "100% %3%";
    EXPECT_EQ(formatPlainTextMessage(error),
              "ExampleOuter[" + error.id() + "]: Error during 100% %3% [./%2%:1]\nvoid f(%1%)");
}

TEST(PlainTextMessage, ShowsNoPlaceForAnIncludedErrorThatHasNone) {
    const ExTraceable inner(boost::format("plain"), "Plain");
    const auto outer = Exc<&ExampleOuter>("int main()", "./main", 56, inner) % "migration";
    EXPECT_EQ(formatPlainTextMessage(outer), "ExampleOuter[" + outer.id() +
                                                 "]: Error during migration [./main:56]\nint main()"
                                                 "\nInner exception:\nPlain[" +
                                                 inner.id() + "]: plain [:0]\n");
}

TEST(XmlMessage, HasCodeIdSeverityAndDescription) {
    const auto error = test::innerError();
    EXPECT_EQ(xmlOf(error), "<message code=\"ExampleInner\" id=\"" + error.id().substr(0, 36) +
                                "\" severity=\"error\"><description>Cannot read dump.xml: No such file or "
                                "directory</description></message>\n");
}

TEST(XmlMessage, HasAnIdentifierOf36Characters) {
    EXPECT_THAT(xmlOf(test::innerError()),
                MatchesRegex("<message code=\"ExampleInner\" id=\"[0-9a-f-]{36}\" severity=.*\n"));
}

TEST(XmlMessage, CallsOnlySeverityFourAWarning) {
    auto error = test::innerError();
    for (const int severity : {0, 3, 5}) {
        error.setSeverity(severity);
        EXPECT_THAT(xmlOf(error), HasSubstr("severity=\"error\"")) << severity;
    }
    error.setSeverity(4);
    EXPECT_THAT(xmlOf(error), HasSubstr("severity=\"warning\""));
}

TEST(XmlMessage, HasADescriptionAndANestedMessageForAnIncludedError) {
    const auto error = test::outerError();
    EXPECT_EQ(xmlOf(error), "<message code=\"ExampleOuter\" id=\"" + error.id().substr(0, 36) +
                                "\" severity=\"error\"><description>Error during dump retrieval</description>"
                                "<message code=\"ExampleInner\" id=\"" +
                                error.inner()->id().substr(0, 36) +
                                "\" severity=\"error\"><description>Cannot read dump.xml: No such file or "
                                "directory</description></message></message>\n");
}

TEST(XmlMessage, DoesNotTellWhereTheErrorWasRaised) {
    const std::string xml = xmlOf(test::outerError());
    EXPECT_THAT(xml, Not(HasSubstr("action()")));
    EXPECT_THAT(xml, Not(HasSubstr("./actions")));
    EXPECT_THAT(xml, Not(HasSubstr("34\"")));
}

TEST(XmlMessage, HoldsForeignBytesInItsDescription) {
    const auto error = Exc<&ExampleOuter>("", "", 1) % std::string("<\xFF&\0\x1B[1m>", 9);
    EXPECT_THAT(xmlOf(error), HasSubstr("<description>Error during &lt;&#xFFFD;&amp;"));
}

}  // namespace
}  // namespace korva
