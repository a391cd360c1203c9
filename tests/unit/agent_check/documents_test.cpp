// SPDX-License-Identifier: Apache-2.0
#include "agent_check/documents.h"

#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace korva::agent_check {
namespace {

TEST(FaultOfText, IsEmptyForADocument) {
    EXPECT_EQ("", faultOfText("<a><b/></a>\n"));
}

TEST(FaultOfText, TellsWhatIsWrong) {
    EXPECT_EQ("it is empty", faultOfText(""));
    EXPECT_NE(std::string::npos, faultOfText("<a>").find("not well-formed"));
}

TEST(FaultOfFile, IsEmptyForADocument) {
    const test::TempDir dir;
    test::writeFile(dir / "good", "<a/>");
    test::writeFile(dir / "half", "<a");
    EXPECT_EQ("", faultOfFile(dir / "good"));
    EXPECT_NE("", faultOfFile(dir / "half"));
    EXPECT_NE("", faultOfFile(dir / "missing"));
}

TEST(Noise, IsWhatStandsBeforeTheDocument) {
    EXPECT_EQ(8U, noiseBefore("Welcome\n<a/>", "a"));
    EXPECT_EQ(1U, noiseBefore("\n<?xml version='1.0'?><a/>", "a"));
}

TEST(Noise, MayHoldMarkupItself) {
    EXPECT_EQ(6U, noiseBefore("<you>\n<a/>", "a"));
    EXPECT_EQ(4U, noiseBefore("<a>\n<a/>", "a"));
}

TEST(Noise, MayBeginAsADocumentDoes) {
    EXPECT_EQ(18U, noiseBefore("<!-- hello -->you\n<a/>", "a"));
    EXPECT_EQ(23U, noiseBefore("<!DOCTYPE html>\nWelcome<a/>", "a"));
    EXPECT_EQ(13U, noiseBefore("<!-- you -->\n<?xml version='1.0'?><a/>", "a"));
}

TEST(Noise, IsNoneBeforeADocumentAndWithoutOne) {
    for (const char* text : {"<a/>", "\n<a/>", "<!-- hello -->\n<!DOCTYPE a><a/>", "noise <a>", ""}) {
        EXPECT_EQ(std::nullopt, noiseBefore(text, "a")) << text;
    }
}

TEST(Noise, IsNotTheDocumentItselfBeforeAPartOfIt) {
    EXPECT_EQ(std::nullopt, noiseBefore("<a><b/>", "a"));
    for (const char* prolog : {"", "<?xml version='1.0'?>\n", "<!-- hello -->"}) {
        for (const char* declaration : {"<!ENTITY b 'c'>", "<!ATTLIST a b CDATA 'c'>"}) {
            const std::string text = std::string(prolog) + "<!DOCTYPE a [" + declaration + "]><a/>";
            EXPECT_EQ(std::nullopt, noiseBefore(text, "a")) << text;
        }
    }
}

TEST(ChildOfRoot, IsTheTextOfTheFirstOne) {
    EXPECT_EQ("one", childOfRoot("<r><x/><c>o<i>n</i>ne</c><c>two</c></r>", "r", "c"));
    EXPECT_EQ("", childOfRoot("<r><c/></r>", "r", "c"));
}

TEST(ChildOfRoot, IsNoneElsewhere) {
    EXPECT_EQ(std::nullopt, childOfRoot("<other><c>one</c></other>", "r", "c"));
    EXPECT_EQ(std::nullopt, childOfRoot("<r><x><c>one</c></x></r>", "r", "c"));
    EXPECT_EQ(std::nullopt, childOfRoot("<r><c>one</c>", "r", "c"));
}

}  // namespace
}  // namespace korva::agent_check
