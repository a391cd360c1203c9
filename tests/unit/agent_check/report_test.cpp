// SPDX-License-Identifier: Apache-2.0
#include "agent_check/report.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

namespace korva::agent_check {
namespace {

constexpr Rule kRule{"some-rule", "Do better."};

class ReportTest : public testing::Test {
  protected:
    std::ostringstream out;
    Report report{out};
};

TEST_F(ReportTest, TellsARuleThatHoldsWithoutAdvice) {
    EXPECT_TRUE(Findings(report, kRule).tell("all is well"));
    EXPECT_EQ("ok       some-rule: all is well\n", out.str());
}

TEST_F(ReportTest, TellsTheWorstFindingAndCountsTheOthers) {
    Findings findings(report, kRule);
    findings.warning("odd");
    findings.problem("first");
    findings.problem("second");
    EXPECT_FALSE(findings.tell("unused"));
    EXPECT_EQ("problem  some-rule: first (and 2 more). Do better.\n", out.str());
}

TEST_F(ReportTest, CountsBehindALongFinding) {
    Findings findings(report, kRule);
    findings.warning(std::string(1000, 'x'));
    findings.warning("more");
    EXPECT_TRUE(findings.tell("unused"));
    EXPECT_NE(std::string::npos, out.str().find("x … (and 1 more). Do better.\n"));
}

TEST_F(ReportTest, CountsProblemsAndWarningsAndNamesWhatWasNotReached) {
    report.tell(rules::kSpecFile, Verdict::kOk, "good");
    report.tell(rules::kSpecKeys, Verdict::kWarning, "odd");
    report.tell(rules::kEntryPoint, Verdict::kProblem, "bad");
    report.skip(rules::kListRemoved, "no list");
    EXPECT_EQ(1, report.problems());
    report.tell(rules::kInterpreter, Verdict::kProblem, "worse");
    EXPECT_EQ(2, report.problems());
    EXPECT_EQ("bad", report.firstProblem());
    out.str("");
    report.finish();
    EXPECT_TRUE(out.str().starts_with("skipped  until the problems above are mended: spec-grammar, "))
        << out.str();
    EXPECT_EQ(std::string::npos, out.str().find("list-removed"));
    EXPECT_TRUE(out.str().ends_with("\n\n2 problems, 1 warning, 1 ok\n")) << out.str();
}

TEST(Rules, HaveDifferentNamesAndAdviceThatIsASentence) {
    std::set<std::string> names;
    for (const Rule* rule : kAllRules) {
        EXPECT_TRUE(names.insert(rule->name).second) << rule->name;
        EXPECT_TRUE(std::string(rule->advice).ends_with('.')) << rule->name;
    }
}

}  // namespace
}  // namespace korva::agent_check
