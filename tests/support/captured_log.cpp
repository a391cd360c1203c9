// SPDX-License-Identifier: Apache-2.0
#include "support/captured_log.h"

#include <log4cpp/Category.hh>
#include <log4cpp/LoggingEvent.hh>

#include <ostream>

namespace korva::test {

std::ostream& operator<<(std::ostream& out, const LogRecord& record) {
    return out << log4cpp::Priority::getPriorityName(record.priority) << " " << record.category << ": \""
               << record.message << "\"";
}

CapturedLog::CapturedLog() : priorityBefore_(log4cpp::Category::getRoot().getPriority()) {
    log4cpp::Category::getRoot().setPriority(log4cpp::Priority::DEBUG);
    log4cpp::Category::getRoot().addAppender(appender_);
}

CapturedLog::~CapturedLog() {
    log4cpp::Category::getRoot().removeAppender(&appender_);
    log4cpp::Category::getRoot().setPriority(priorityBefore_);
}

std::vector<std::string> CapturedLog::messages(const std::string& category) const {
    std::vector<std::string> found;
    for (const LogRecord& record : records()) {
        if (record.category == category) {
            found.push_back(record.message);
        }
    }
    return found;
}

std::string CapturedLog::text() const {
    std::string all;
    for (const LogRecord& record : records()) {
        all += record.message + "\n";
    }
    return all;
}

void CapturedLog::Appender::_append(const log4cpp::LoggingEvent& event) {
    records.push_back({event.categoryName, event.priority, event.message});
}

}  // namespace korva::test
