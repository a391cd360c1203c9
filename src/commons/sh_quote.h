// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

namespace korva {

/// One word quoted for the POSIX shell: special bytes get a backslash, a newline is put between single
/// quotes, all others stay. An empty word gives an empty text. Braces and commas stay as they are: dash and
/// sh give the word back unchanged, bash also expands braces ("{a,b}").
std::string sh_quote(std::string_view word);

}  // namespace korva
