// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace korva {

/// What the terminal can show. kUnicode needs a locale with UTF-8, which knows how wide characters are.
enum class Charset { kAscii, kUnicode };

/// Text of any origin as one line that does nothing to a terminal but being shown: control and formatting
/// characters, those that turn the direction of writing among them, bytes that are no UTF-8 and what the
/// locale does not know become one visible substitute each, tabs and line ends a blank. Of the marks that
/// pile up on one character few are kept.
std::string toTerminalText(std::string_view bytes, Charset charset);

// The following expect texts that went through toTerminalText().

/// How many columns of a terminal the text takes.
int columnsOf(std::string_view text);

/// The text, or as much of it as fits, with a sign that something is missing at the end (or at the start).
std::string clipEnd(const std::string& text, int columns, Charset charset);
std::string clipStart(const std::string& text, int columns, Charset charset);

/// The text in lines of at most that many columns, broken at blanks where there are any. At least one line.
std::vector<std::string> wrap(const std::string& text, int columns);

}  // namespace korva
