// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/format.hpp>

#include <functional>
#include <string>

namespace korva {

/// Gives the messages of the functions in utils/ to `sink` from now on. Messages logged while there was none
/// (the host configuration is read before logging is set up) come first, the oldest hundred of them. With an
/// empty `sink` messages are kept again.
void setUtilityLogSink(std::function<void(const std::string&)> sink);

/// Hands the message to the sink as it is, with or without a final newline. Never throws: when memory is
/// short the message is lost.
void logUtilityMessage(const std::string& message) noexcept;

/// Formats ("%s") and logs. Never throws.
template <typename... Arguments>
void logUtility(const char* format, const Arguments&... arguments) noexcept {
    try {
        boost::format message(format);
        static_cast<void>((message % ... % arguments));
        logUtilityMessage(message.str());
    } catch (...) {  // NOLINT(bugprone-empty-catch): out of memory, which the caller reports by its result
    }
}

}  // namespace korva
