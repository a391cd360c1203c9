// SPDX-License-Identifier: Apache-2.0
#include "xml/text_msg_formatter.h"

#include <boost/format.hpp>

namespace korva {

void TextMsgFormatter::advanceToInnerException() {
    appendRecord();
    output_ += "\nInner exception:\n";
    // An error without a place of its own must not show that of the one around it.
    context_.clear();
    file_.clear();
    line_ = 0;
}

void TextMsgFormatter::appendRecord() {
    output_ +=
        (boost::format("%1%[%2%]: %3% [%4%:%5%]\n%6%") % code_ % id_ % message_ % file_ % line_ % context_)
            .str();
}

std::string formatPlainTextMessage(const ExTraceable& error) {
    std::string output;
    TextMsgFormatter formatter(output);
    error.accept(formatter);
    formatter.appendRecord();
    return output;
}

}  // namespace korva
