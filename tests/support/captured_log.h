// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <log4cpp/AppenderSkeleton.hh>
#include <log4cpp/Priority.hh>

#include <iosfwd>
#include <string>
#include <vector>

namespace korva::test {

/// One line of the log: all that an appender is told apart from the time.
struct LogRecord {
    std::string category;
    log4cpp::Priority::Value priority;
    std::string message;

    bool operator==(const LogRecord&) const = default;
};

std::ostream& operator<<(std::ostream& out, const LogRecord& record);

/// Collects what all categories of log4cpp log while it lives, from DEBUG up.
class CapturedLog {
  public:
    CapturedLog();
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;
    ~CapturedLog();

    const std::vector<LogRecord>& records() const { return appender_.records; }
    /// The messages of one category, in their order.
    std::vector<std::string> messages(const std::string& category) const;
    /// All messages, one after the other.
    std::string text() const;
    void clear() { appender_.records.clear(); }

  private:
    class Appender : public log4cpp::AppenderSkeleton {
      public:
        Appender() : AppenderSkeleton("captured") {}
        void close() override {}
        bool requiresLayout() const override { return false; }
        void setLayout(log4cpp::Layout* /*layout*/) override {}

        std::vector<LogRecord> records;

      protected:
        void _append(const log4cpp::LoggingEvent& event) override;
    };

    Appender appender_;
    log4cpp::Priority::Value priorityBefore_;
};

/// The record that a category of ours writes at DEBUG.
inline LogRecord debugRecord(const std::string& category, const std::string& message) {
    return {category, log4cpp::Priority::DEBUG, message};
}

/// The same at ERROR.
inline LogRecord errorRecord(const std::string& category, const std::string& message) {
    return {category, log4cpp::Priority::ERROR, message};
}

}  // namespace korva::test
