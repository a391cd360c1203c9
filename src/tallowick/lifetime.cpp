// SPDX-License-Identifier: Apache-2.0
#include "tallowick/lifetime.h"

#include "tallowick/logging.h"
#include "xml/log4cpp_debug_log.h"
#include "xml/xml_log.h"

namespace korva {

LogLifetimeController::LogLifetimeController(const std::string& name) : log_(std::make_unique<XmlLog>(name)) {
    theLog = log_.get();
}

LogLifetimeController::~LogLifetimeController() {
    log_.reset();
    theLog = nullptr;
}

void LogLifetimeController::close() {
    log_->close();
}

DebugLogLifetimeController::DebugLogLifetimeController(bool debug, bool verbose) {
    initializeLog4Cpp(verbose);
    log_ = std::make_unique<Log4cppDebugLog>(debug ? !verbose : false, verbose);
    theDebugLog = log_.get();
}

DebugLogLifetimeController::~DebugLogLifetimeController() {
    theDebugLog = nullptr;
}

}  // namespace korva
