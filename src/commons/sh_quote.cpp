// SPDX-License-Identifier: Apache-2.0
#include "commons/sh_quote.h"

namespace korva {

std::string sh_quote(std::string_view word) {
    constexpr std::string_view kSpecial = "\t \"#$&'()*;<>?[\\`|~";
    std::string quoted;
    quoted.reserve(word.size() * 2);
    for (const char c : word) {
        if (c == '\n') {
            quoted += "'\n'";
            continue;
        }
        if (kSpecial.find(c) != std::string_view::npos) {
            quoted += '\\';
        }
        quoted += c;
    }
    return quoted;
}

}  // namespace korva
