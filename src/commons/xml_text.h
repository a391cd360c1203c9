// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

namespace korva {

/// `bytes` as text that an XML 1.0 document can hold (https://www.w3.org/TR/xml/#charsets): every byte that
/// is not part of a UTF-8 sequence and every character outside of XML's range becomes U+FFFD.
std::string toXmlText(std::string_view bytes);

}  // namespace korva
