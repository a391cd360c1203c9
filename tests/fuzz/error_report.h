// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/xml_text.h"
#include "fuzz/fuzz_target.h"
#include "xml/text_msg_formatter.h"

#include <string>

namespace korva::fuzz {

/// An error that an input has raised can be reported: as text for the log, and in an XML document.
inline void requireReport(const ExTraceable& error) {
    const std::string message = error.what();
    require(!message.empty(), "an error has a message");
    require(toXmlText(message) == message, "the message is XML text");
    require(formatPlainTextMessage(error).find(message) != std::string::npos, "the report has the message");
}

}  // namespace korva::fuzz
