// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "agent_check/rules.h"

#include <iosfwd>
#include <set>
#include <string>

namespace korva::agent_check {

enum class Verdict { kOk, kWarning, kProblem };

/// Tells what became of the rules, one line each.
class Report {
  public:
    /// `out` stays the caller's.
    explicit Report(std::ostream& out) : out_(out) {}

    /// `more` findings are only counted.
    void tell(const Rule& rule, Verdict verdict, const std::string& text, std::size_t more = 0);
    /// A rule that cannot be judged, and why.
    void skip(const Rule& rule, const std::string& reason);
    bool isTold(const Rule& rule) const { return told_.contains(rule.name); }

    /// Names the rules of which nothing was told, and sums up.
    void finish();

    int problems() const { return problems_; }
    /// What was told of the first one.
    const std::string& firstProblem() const { return firstProblem_; }

  private:
    std::ostream& out_;
    std::set<std::string> told_;
    std::string firstProblem_;
    int good_ = 0;
    int warnings_ = 0;
    int problems_ = 0;
};

/// What is found about one rule, of which one line is made: the worst, and how many more there are.
class Findings {
  public:
    Findings(Report& report, const Rule& rule) : report_(report), rule_(rule) {}

    void problem(const std::string& text) { add(Verdict::kProblem, text); }
    void warning(const std::string& text) { add(Verdict::kWarning, text); }
    bool hasProblem() const { return verdict_ == Verdict::kProblem; }

    /// Tells them; `good` is said where there are none. True where there is no problem.
    bool tell(const std::string& good);

  private:
    void add(Verdict verdict, const std::string& text);

    Report& report_;
    const Rule& rule_;
    Verdict verdict_ = Verdict::kOk;
    std::string text_;
    std::size_t count_ = 0;
};

}  // namespace korva::agent_check
