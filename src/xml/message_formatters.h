// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "xml/text_msg_formatter.h"
#include "xml/xml_wrap.h"

#include <string>

namespace korva {

/// Renders an error into an element "message", errors included in it into elements "message" inside. Where it
/// was raised is not told.
class XmlMsgFormatter : public ExInfoVisitor {
  public:
    /// Fills `message`, an element of `document`, which must outlive the formatter.
    XmlMsgFormatter(tXmlDvxDocument& document, xmlNodePtr message) : document_(document), current_(message) {}

    void setCode(const std::string& code) override;
    /// Without the NUL at its end.
    void setId(const std::string& id) override;
    void setMessage(const std::string& message) override;
    void setContext(const std::string& /*context*/) override {}
    void setFile(const std::string& /*file*/) override {}
    void setLine(int /*line*/) override {}
    void advanceToInnerException() override;
    void setSeverity(int severity) override;

  private:
    tXmlDvxDocument& document_;
    xmlNodePtr current_;
};

}  // namespace korva
