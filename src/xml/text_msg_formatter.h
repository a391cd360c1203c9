// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/exception.h"

#include <string>

namespace korva {

/// Renders an error as text, a record for it and one for each error included in it.
class TextMsgFormatter : public ExInfoVisitor {
  public:
    /// Appends to `output`, which must outlive the formatter.
    explicit TextMsgFormatter(std::string& output) : output_(output) {}

    void setCode(const std::string& code) override { code_ = code; }
    /// Kept as it is, with the NUL at its end.
    void setId(const std::string& id) override { id_ = id; }
    void setMessage(const std::string& message) override { message_ = message; }
    void setContext(const std::string& context) override { context_ = context; }
    void setFile(const std::string& file) override { file_ = file; }
    void setLine(int line) override { line_ = line; }
    void advanceToInnerException() override;
    void setSeverity(int severity) override { severity_ = severity; }

    /// Appends the record of the error described last: call it when the visit is over.
    void appendRecord();

  private:
    std::string& output_;
    std::string code_;
    std::string id_;
    std::string context_;
    std::string file_;
    int line_ = 0;
    std::string message_;
    int severity_ = kSeverityError;
};

/// The plain-text report of an error and of those included in it, without a newline at its end.
std::string formatPlainTextMessage(const ExTraceable& error);

}  // namespace korva
