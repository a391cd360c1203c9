// SPDX-License-Identifier: Apache-2.0
#include "tallowick/logging.h"

#include "commons/product_paths.h"
#include "commons/session.h"
#include "utils/log_hook.h"

#include <log4cpp/Appender.hh>
#include <log4cpp/Category.hh>
#include <log4cpp/PropertyConfigurator.hh>

#include <cstdlib>
#include <string>

namespace korva {
namespace {

bool isConfigured = false;

void removeConsoleAppender() {
    log4cpp::Category& root = log4cpp::Category::getRoot();
    if (log4cpp::Appender* const console = root.getAppender("A2")) {
        root.removeAppender(console);
    }
}

}  // namespace

void initializeLog4Cpp(bool verbose) {
    // log4cpp looks "${NAME}" up in the environment before anything else.
    setenv("LOG_FILE_NAME", theSession->getLogFileName().c_str(), 1);
    if (isConfigured) {
        return;
    }
    log4cpp::PropertyConfigurator::configure(files::getDvxLogConfigFileName());
    if (!verbose) {
        removeConsoleAppender();
    }
    setUtilityLogSink([](const std::string& message) {
        log4cpp::Category::getInstance("k.utils").warnStream() << message;
    });
    isConfigured = true;
}

}  // namespace korva
