// SPDX-License-Identifier: Apache-2.0
#include "agent_check/report.h"

#include "agent_check/one_line.h"

#include <ostream>

namespace korva::agent_check {
namespace {

std::string counted(int count, const std::string& one) {
    return std::to_string(count) + " " + one + (count == 1 ? "" : "s");
}

}  // namespace

void Report::tell(const Rule& rule, Verdict verdict, const std::string& text, std::size_t more) {
    told_.insert(rule.name);
    const char* word = "ok       ";
    if (verdict == Verdict::kProblem) {
        word = "problem  ";
        if (problems_ == 0) {
            firstProblem_ = text;
        }
        ++problems_;
    } else if (verdict == Verdict::kWarning) {
        word = "warning  ";
        ++warnings_;
    } else {
        ++good_;
    }
    out_ << word << rule.name << ": " << oneLine(text);
    if (more > 0) {
        out_ << " (and " << more << " more)";
    }
    if (verdict != Verdict::kOk) {
        out_ << ". " << rule.advice;
    }
    out_ << '\n' << std::flush;
}

void Report::skip(const Rule& rule, const std::string& reason) {
    told_.insert(rule.name);
    out_ << "skipped  " << rule.name << ": " << oneLine(reason) << '\n' << std::flush;
}

void Report::finish() {
    std::string untold;
    for (const Rule* rule : kAllRules) {
        if (!isTold(*rule)) {
            untold += (untold.empty() ? "" : ", ") + std::string(rule->name);
        }
    }
    if (!untold.empty()) {
        out_ << "skipped  until the problems above are mended: " << untold << '\n';
    }
    out_ << '\n'
         << counted(problems_, "problem") << ", " << counted(warnings_, "warning") << ", " << good_ << " ok\n"
         << std::flush;
}

void Findings::add(Verdict verdict, const std::string& text) {
    ++count_;
    if (verdict > verdict_) {
        verdict_ = verdict;
        text_ = text;
    }
}

bool Findings::tell(const std::string& good) {
    if (count_ == 0) {
        report_.tell(rule_, Verdict::kOk, good);
    } else {
        report_.tell(rule_, verdict_, text_, count_ - 1);
    }
    return verdict_ != Verdict::kProblem;
}

}  // namespace korva::agent_check
