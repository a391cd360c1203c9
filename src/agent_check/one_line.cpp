// SPDX-License-Identifier: Apache-2.0
#include "agent_check/one_line.h"

#include "commons/xml_text.h"

#include <array>
#include <cstdio>

namespace korva::agent_check {
namespace {

constexpr std::size_t kLongest = 300;  // bytes

bool isContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r\n\f\v";
    const std::size_t begin = text.find_first_not_of(kBlanks);
    return begin == std::string_view::npos ? std::string_view()
                                           : text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

std::string escape(unsigned char byte) {
    std::array<char, sizeof "\\xff"> code{};
    std::snprintf(code.data(), code.size(), "\\x%02x", byte);
    return code.data();
}

}  // namespace

std::string oneLine(std::string_view text) {
    std::string_view rest = trimmed(text);
    const bool isCut = rest.size() > kLongest;
    if (isCut) {
        std::size_t end = kLongest;
        while (end > 0 && isContinuation(rest[end])) {
            --end;
        }
        rest = rest.substr(0, end);
    }
    // U+0080 to U+009F are control characters, too: two bytes, of which the first is C2.
    constexpr unsigned char kLeadOfControls = 0xC2;
    constexpr unsigned char kLastControl = 0x9F;
    constexpr unsigned char kDelete = 0x7F;
    std::string line;
    for (std::size_t at = 0; at < rest.size(); ++at) {
        const auto byte = static_cast<unsigned char>(rest[at]);
        if (byte == '\n') {
            line += " / ";
        } else if (byte < ' ' || byte == kDelete) {
            line += escape(byte);
        } else if (byte == kLeadOfControls && at + 1 < rest.size() &&
                   static_cast<unsigned char>(rest[at + 1]) <= kLastControl && isContinuation(rest[at + 1])) {
            line += escape(static_cast<unsigned char>(rest[++at]));
        } else {
            line += rest[at];
        }
    }
    return toXmlText(line) + (isCut ? " …" : "");
}

}  // namespace korva::agent_check
