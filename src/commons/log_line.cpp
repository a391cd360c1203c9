// SPDX-License-Identifier: Apache-2.0
#include "commons/log_line.h"

#include <log4cpp/Appender.hh>
#include <log4cpp/LoggingEvent.hh>

namespace korva {

void writeToLog(log4cpp::Category& category, log4cpp::Priority::Value priority, const std::string& message) {
    if (!category.isPriorityEnabled(priority)) {
        return;
    }
    const log4cpp::LoggingEvent event(category.getName(), message, "", priority);
    for (log4cpp::Category* each = &category; each != nullptr; each = each->getParent()) {
        for (log4cpp::Appender* const appender : each->getAllAppenders()) {
            appender->doAppend(event);
        }
        if (!each->getAdditivity()) {
            return;
        }
    }
}

LogLine::LogLine(log4cpp::Category& category, log4cpp::Priority::Value priority)
    : category_(category), priority_(priority) {
    if (category_.isPriorityEnabled(priority_)) {
        text_.emplace();
    }
}

LogLine::~LogLine() {
    if (!text_ || !*text_) {  // none is wanted, or pieces are missing
        return;
    }
    try {
        writeToLog(category_, priority_, text_->str());
    } catch (...) {  // NOLINT(bugprone-empty-catch): there is no other place to tell it
    }
}

void closeLog() noexcept {
    try {
        log4cpp::Category::shutdown();
    } catch (...) {  // NOLINT(bugprone-empty-catch): the end of the process does the rest
    }
}

void debugOrNothing(log4cpp::Category& (*category)(), const char* message) noexcept {
    try {
        debugLine(category()) << message;
    } catch (...) {  // NOLINT(bugprone-empty-catch): there is no other place to tell it
    }
}

}  // namespace korva
