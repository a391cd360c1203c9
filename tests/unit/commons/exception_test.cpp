// SPDX-License-Identifier: Apache-2.0
#include "commons/exception.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace korva {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr const char* kSourceName = "./exception_test";

KORVA_ERROR_TAG(Plain, "Plain message")
KORVA_ERROR_TAG(Other, "Other message")
KORVA_ERROR_TAG(WithTwo, "first %1%, second %2%")

struct Owner {
    static ErrorKind Nested(bool) { return {"Owner::ExNested", "in a class: %1%"}; }
};

/// What a visitor is told, one line for each call.
class Transcript : public ExInfoVisitor {
  public:
    void setCode(const std::string& code) override { lines.push_back("code " + code); }
    void setId(const std::string& id) override { lines.push_back("id " + id); }
    void setMessage(const std::string& message) override { lines.push_back("message " + message); }
    void setContext(const std::string& context) override { lines.push_back("context " + context); }
    void setFile(const std::string& file) override { lines.push_back("file " + file); }
    void setLine(int line) override { lines.push_back("line " + std::to_string(line)); }
    void advanceToInnerException() override { lines.emplace_back("inner"); }
    void setSeverity(int severity) override { lines.push_back("severity " + std::to_string(severity)); }

    std::vector<std::string> lines;
};

std::vector<std::string> transcriptOf(const ExVisitable& error) {
    Transcript transcript;
    error.accept(transcript);
    return transcript.lines;
}

void raise() {
    throw KORVA_EXC(WithTwo) % "a" % 2;
}

TEST(Exception, IsCaughtByItsTagAfterItsArgumentsWereFed) {
    try {
        raise();
        FAIL();
    } catch (const Exc<&Plain>&) {
        FAIL() << "caught as another kind";
    } catch (const Exc<&WithTwo>& error) {
        EXPECT_STREQ("first a, second 2", error.what());
    }
}

TEST(Exception, IsCaughtAsEachOfItsBases) {
    EXPECT_THROW(raise(), ExTaggedIncludable);
    EXPECT_THROW(raise(), ExTraceable);
    EXPECT_THROW(raise(), std::runtime_error);
}

TEST(Exception, RecordsWhereItWasRaised) {
    try {
        raise();
    } catch (const ExTraceable& error) {
        EXPECT_THAT(transcriptOf(error),
                    ElementsAre(AllOf(StartsWith("context "), HasSubstr("raise()")), "file ./exception_test",
                                StartsWith("line "), "code WithTwo", "id " + error.id(), "severity 3",
                                "message first a, second 2"));
    }
}

TEST(Exception, HasTheTextOfItsTagAsCode) {
    const auto error = KORVA_EXC(Owner::Nested) % "x";
    EXPECT_THAT(transcriptOf(error), testing::Contains("code Owner::ExNested"));
    EXPECT_STREQ("in a class: x", error.what());
}

TEST(Exception, HasAnotherIdentifierThanTheOneBefore) {
    const auto first = KORVA_EXC(Plain);
    const auto second = KORVA_EXC(Plain);
    EXPECT_EQ(37U, first.id().size());
    EXPECT_NE(first.id(), second.id());
}

TEST(Exception, KeepsItsIdentifierInCopies) {
    const auto error = KORVA_EXC(Plain);
    const auto copy = error;
    EXPECT_EQ(error.id(), copy.id());
    const std::unique_ptr<ExTraceable> cloned(error.clone());
    EXPECT_EQ(error.id(), cloned->id());
}

TEST(Exception, CarriesItsSeverity) {
    auto error = KORVA_EXC(Plain);
    EXPECT_EQ(kSeverityError, error.severity());
    error.setSeverity(kSeverityWarning);
    EXPECT_THAT(transcriptOf(error), testing::Contains("severity 4"));
}

TEST(ExceptionMessage, KeepsAPositionWithoutAnArgument) {
    EXPECT_STREQ("first %1%, second %2%", (KORVA_EXC(WithTwo)).what());
    EXPECT_STREQ("first a, second %2%", (KORVA_EXC(WithTwo) % "a").what());
}

TEST(ExceptionMessage, DoesNotInterpretItsArguments) {
    EXPECT_STREQ("first 100%, second %1%", (KORVA_EXC(WithTwo) % "100%" % "%1%").what());
}

TEST(ExceptionMessage, IsValidXmlTextWhateverTheArguments) {
    const auto error = KORVA_EXC(WithTwo) % "\xFF\x01" % std::string("a\0b", 3);
    EXPECT_STREQ(
        "first \xEF\xBF\xBD\xEF\xBF\xBD, second a\xEF\xBF\xBD"
        "b",
        error.what());
}

TEST(ExceptionMessage, IsRenderedOnce) {
    auto error = KORVA_EXC(WithTwo) % "a" % "b";
    const char* text = error.what();
    EXPECT_EQ(text, error.what());
}

TEST(ExceptionMessage, RejectsASuperfluousArgumentAtTheRaiseSite) {
    EXPECT_THROW(KORVA_EXC(Plain) % "unexpected", boost::io::too_many_args);
    EXPECT_THROW(KORVA_EXC(WithTwo) % 1 % 2 % 3, boost::io::too_many_args);
}

TEST(ExceptionCause, IsVisitedBehindItsEffectOutermostFirst) {
    const auto innermost = KORVA_EXC(Plain);
    const auto middle = KORVA_EXC_CAUSED_BY(Other, innermost);
    const auto outer = KORVA_EXC_CAUSED_BY(WithTwo, middle) % 1 % 2;
    const std::vector<std::string> lines = transcriptOf(outer);
    ASSERT_EQ(23U, lines.size());
    EXPECT_EQ("message first 1, second 2", lines[6]);
    EXPECT_EQ("inner", lines[7]);
    EXPECT_EQ("code Other", lines[11]);
    EXPECT_EQ("message Other message", lines[14]);
    EXPECT_EQ("inner", lines[15]);
    EXPECT_EQ("code Plain", lines[19]);
    EXPECT_EQ("message Plain message", lines[22]);
}

TEST(ExceptionCause, IsACopy) {
    std::unique_ptr<ExTaggedIncludable> outer;
    {
        const auto cause = KORVA_EXC(WithTwo) % "a" % "b";
        outer = std::make_unique<Exc<&Other>>(KORVA_EXC_CAUSED_BY(Other, cause));
        EXPECT_NE(&cause, outer->inner());
    }
    EXPECT_STREQ("first a, second b", outer->inner()->what());
}

TEST(ExceptionCause, IsNullWhereThereIsNone) {
    EXPECT_EQ(nullptr, (KORVA_EXC(Plain)).inner());
}

TEST(ExceptionCopy, RendersTheSameReportAfterItsOriginalIsGone) {
    auto original = std::make_unique<Exc<&WithTwo>>(KORVA_EXC_CAUSED_BY(WithTwo, KORVA_EXC(Other)) % 1 % 2);
    const std::vector<std::string> report = transcriptOf(*original);
    const Exc<&WithTwo> copy(*original);
    const std::unique_ptr<ExTaggedIncludable> cloned(original->clone());
    original.reset();
    EXPECT_EQ(report, transcriptOf(copy));
    EXPECT_EQ(report, transcriptOf(*cloned));
}

TEST(ExceptionCopy, IsIndependentOfChangesToItsOriginal) {
    auto original = KORVA_EXC(WithTwo) % "a";
    const auto copy = original;
    original % "b";
    EXPECT_STREQ("first a, second %2%", copy.what());
    EXPECT_STREQ("first a, second b", original.what());
}

TEST(ExceptionCopy, IsOfTheMostDerivedType) {
    const auto error = KORVA_EXC(Plain);
    const ExTraceable& base = error;
    const std::unique_ptr<ExTraceable> cloned(base.clone());
    EXPECT_NE(nullptr, dynamic_cast<const Exc<&Plain>*>(cloned.get()));
    const Cloneable& cloneable = error;
    const std::unique_ptr<Cloneable> again(cloneable.clone());
    EXPECT_NE(nullptr, dynamic_cast<const Exc<&Plain>*>(again.get()));
}

TEST(ExTaggedIncludable, ReportsWithoutAPlace) {
    const ExTaggedIncludable error(boost::format("outer"), "Outer", KORVA_EXC(Plain));
    const std::vector<std::string> lines = transcriptOf(error);
    ASSERT_EQ(12U, lines.size());
    EXPECT_EQ("code Outer", lines[0]);
    EXPECT_EQ("message outer", lines[3]);
    EXPECT_EQ("inner", lines[4]);
    EXPECT_EQ("code Plain", lines[8]);
    const std::unique_ptr<ExTaggedIncludable> cloned(error.clone());
    EXPECT_EQ(lines, transcriptOf(*cloned));
}

TEST(ExTraceable, ReportsItselfOnly) {
    const ExTraceable error(boost::format("message"), "Code");
    EXPECT_THAT(transcriptOf(error),
                ElementsAre("code Code", "id " + error.id(), "severity 3", "message message"));
    const std::unique_ptr<ExTraceable> cloned(error.clone());
    EXPECT_EQ(transcriptOf(error), transcriptOf(*cloned));
}

TEST(ExInfoVisitor, MayLeaveTheSeverityAlone) {
    class NoSeverity : public ExInfoVisitor {
      public:
        void setCode(const std::string& value) override { code = value; }
        void setId(const std::string& /*id*/) override {}
        void setMessage(const std::string& /*message*/) override {}
        void setContext(const std::string& /*context*/) override {}
        void setFile(const std::string& /*file*/) override {}
        void setLine(int /*line*/) override {}
        void advanceToInnerException() override {}
        std::string code;
    };
    NoSeverity visitor;
    (KORVA_EXC(Plain)).accept(visitor);
    EXPECT_EQ("Plain", visitor.code);
}

}  // namespace
}  // namespace korva
