// SPDX-License-Identifier: Apache-2.0
#include "xml/message_formatters.h"

namespace korva {

void XmlMsgFormatter::setCode(const std::string& code) {
    document_.addAttribute(current_, "code", code);
}

void XmlMsgFormatter::setId(const std::string& id) {
    document_.addAttribute(current_, "id", id.substr(0, id.find('\0')));
}

void XmlMsgFormatter::setMessage(const std::string& message) {
    document_.newTextChild(current_, "description", message);
}

void XmlMsgFormatter::advanceToInnerException() {
    current_ = document_.newChild(current_, "message");
}

void XmlMsgFormatter::setSeverity(int severity) {
    document_.addAttribute(current_, "severity", severity == kSeverityWarning ? "warning" : "error");
}

}  // namespace korva
