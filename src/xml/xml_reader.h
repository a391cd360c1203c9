// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <libxml/tree.h>

#include <memory>
#include <string>

namespace korva {

/// Parses a document that may come from a hostile host. Nothing outside of it is loaded, and one that
/// declares entities or attributes of its own is refused: a few hundred bytes of them can expand to
/// gigabytes. The result is null when the document is refused or not well-formed; `messages` then holds all
/// that libxml2 has to say.
std::shared_ptr<xmlDoc> parseXmlText(const std::string& text, std::string& messages);
std::shared_ptr<xmlDoc> parseXmlFile(const char* fileName, std::string& messages);

/// Whether the parser converts the text before it reads it, since it is or calls itself something else than
/// UTF-8. What is not found among the bytes of such a text may well be quoted in the messages.
bool isConverted(const std::string& text);

}  // namespace korva
