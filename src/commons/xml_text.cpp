// SPDX-License-Identifier: Apache-2.0
#include "commons/xml_text.h"

#include <boost/locale/utf.hpp>

namespace korva {
namespace {

using Utf8 = boost::locale::utf::utf_traits<char>;
using boost::locale::utf::code_point;

bool isXmlCharacter(code_point c) {
    return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) || (c >= 0xE000 && c <= 0xFFFD) ||
           (c >= 0x10000 && c <= 0x10FFFF);
}

}  // namespace

std::string toXmlText(std::string_view bytes) {
    constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD
    std::string text;
    text.reserve(bytes.size());
    const char* position = bytes.data();
    const char* const end = position + bytes.size();
    while (position != end) {
        const char* next = position;
        const code_point c = Utf8::decode(next, end);
        if (c == boost::locale::utf::illegal || c == boost::locale::utf::incomplete) {
            text += kReplacement;
            ++position;  // the bytes behind a bad one may be good
            continue;
        }
        if (isXmlCharacter(c)) {
            text.append(position, next);
        } else {
            text += kReplacement;
        }
        position = next;
    }
    return text;
}

}  // namespace korva
