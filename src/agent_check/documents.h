// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace korva::agent_check {

/// What the program's parser has to say against a text; empty for a document.
std::string faultOfText(const std::string& text);
/// The same of a file.
std::string faultOfFile(const std::string& path);

/// The bytes that stand before the document in a text that is none, but would be without them. The document
/// begins with its declaration, or with its root, which has the name `root`.
std::optional<std::size_t> noiseBefore(const std::string& text, const std::string& root);

/// The text of an element directly below the root of a document; nothing for another root and without one.
std::optional<std::string> childOfRoot(const std::string& text, const std::string& root,
                                       const std::string& child);

}  // namespace korva::agent_check
