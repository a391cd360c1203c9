// SPDX-License-Identifier: Apache-2.0
#include "xml/log4cpp_debug_log.h"

#include "commons/log_line.h"
#include "xml/text_msg_formatter.h"

#include <boost/format.hpp>
#include <log4cpp/Category.hh>

namespace korva {

Log4cppDebugLog::Log4cppDebugLog(bool debugMode, bool verboseMode)
    : debugMode_(debugMode), verboseMode_(verboseMode) {}

void Log4cppDebugLog::log(const std::string& text) {
    writeToLog(log4cpp::Category::getInstance("k.log"), log4cpp::Priority::INFO, text);
}

void Log4cppDebugLog::log(const boost::format& text) {
    log(text.str());
}

void Log4cppDebugLog::log(const ExTraceable& error) {
    log(formatPlainTextMessage(error));
}

}  // namespace korva
