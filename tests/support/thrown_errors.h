// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/exception.h"

#include <gmock/gmock.h>

#include <ostream>
#include <string>
#include <vector>

namespace korva::test {

/// What a visitor learns of one error.
struct ErrorRecord {
    std::string code;
    std::string message;
    std::string file;
    int severity = 0;
};

inline std::ostream& operator<<(std::ostream& out, const ErrorRecord& record) {
    return out << record.code << ": \"" << record.message << "\" [" << record.file << "]";
}

/// An error and those that caused it, outermost first.
inline std::vector<ErrorRecord> recordsOf(const ExTraceable& error) {
    class Visitor : public ExInfoVisitor {
      public:
        void setCode(const std::string& code) override { records.back().code = code; }
        void setId(const std::string& /*id*/) override {}
        void setMessage(const std::string& message) override { records.back().message = message; }
        void setContext(const std::string& /*context*/) override {}
        void setFile(const std::string& file) override { records.back().file = file; }
        void setLine(int /*line*/) override {}
        void advanceToInnerException() override { records.emplace_back(); }
        void setSeverity(int severity) override { records.back().severity = severity; }

        std::vector<ErrorRecord> records{1};
    };
    Visitor visitor;
    error.accept(visitor);
    return visitor.records;
}

/// The error that `body` throws with those that caused it; none when it throws nothing.
template <typename Body>
std::vector<ErrorRecord> errorsOf(Body body) {
    try {
        body();
    } catch (const ExTraceable& error) {
        return recordsOf(error);
    }
    return {};
}

/// Matches an error by its code and message.
inline testing::Matcher<const ErrorRecord&> isError(const std::string& code,
                                                    const testing::Matcher<const std::string&>& message) {
    return testing::AllOf(testing::Field("code", &ErrorRecord::code, code),
                          testing::Field("message", &ErrorRecord::message, message));
}

}  // namespace korva::test
