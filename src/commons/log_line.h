// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <log4cpp/Category.hh>

#include <optional>
#include <sstream>
#include <string>

namespace korva {

/// Writes a message to the appenders of a category, unless its level is not logged. Throws what they throw:
/// log4cpp's own functions promise to throw nothing and so end the program where memory does not suffice.
void writeToLog(log4cpp::Category& category, log4cpp::Priority::Value priority, const std::string& message);

/// One message of the log, put together from pieces. It is written when the statement ends, and dropped where
/// memory does not suffice.
class LogLine {
  public:
    LogLine(log4cpp::Category& category, log4cpp::Priority::Value priority);
    LogLine(const LogLine&) = delete;
    LogLine& operator=(const LogLine&) = delete;
    ~LogLine();

    template <typename T>
    LogLine& operator<<(const T& piece) {
        if (text_) {
            *text_ << piece;
        }
        return *this;
    }

  private:
    log4cpp::Category& category_;
    log4cpp::Priority::Value priority_;
    std::optional<std::ostringstream> text_;  // none where the level is not logged
};

inline LogLine debugLine(log4cpp::Category& category) {
    return {category, log4cpp::Priority::DEBUG};
}

inline LogLine infoLine(log4cpp::Category& category) {
    return {category, log4cpp::Priority::INFO};
}

inline LogLine noticeLine(log4cpp::Category& category) {
    return {category, log4cpp::Priority::NOTICE};
}

inline LogLine warnLine(log4cpp::Category& category) {
    return {category, log4cpp::Priority::WARN};
}

inline LogLine errorLine(log4cpp::Category& category) {
    return {category, log4cpp::Priority::ERROR};
}

/// Closes what the log is written to. At the end of the process log4cpp would do so at a time when an
/// exception ends the program.
void closeLog() noexcept;

/// For destructors: a message that cannot be written is dropped.
void debugOrNothing(log4cpp::Category& (*category)(), const char* message) noexcept;

}  // namespace korva
