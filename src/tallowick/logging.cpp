// SPDX-License-Identifier: Apache-2.0
#include "tallowick/logging.h"

#include "commons/descriptor.h"
#include "commons/log_line.h"
#include "commons/product_paths.h"
#include "commons/regular_file.h"
#include "commons/session.h"
#include "commons/system_error.h"
#include "utils/log_hook.h"

#include <log4cpp/Appender.hh>
#include <log4cpp/Category.hh>
#include <log4cpp/PropertyConfigurator.hh>

#include <fcntl.h>

#include <cerrno>
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

// log4cpp would follow a symbolic link, and wait for the other end of a FIFO.
void requireUsableLogFile(const std::string& path) {
    const Descriptor existing(openRegularFile(AT_FDCWD, path, O_WRONLY));
    if (existing.fd() < 0 && errno != ENOENT) {
        throwSystemError("Cannot write to " + path, errno);
    }
}

}  // namespace

void initializeLog4Cpp(bool verbose) {
    // log4cpp looks "${NAME}" up in the environment before anything else.
    setenv("LOG_FILE_NAME", theSession->getLogFileName().c_str(), 1);
    if (isConfigured) {
        return;
    }
    requireUsableLogFile(theSession->getLogFileName());
    log4cpp::PropertyConfigurator::configure(files::getDvxLogConfigFileName());
    if (!verbose) {
        removeConsoleAppender();
    }
    setUtilityLogSink(
        [](const std::string& message) { warnLine(log4cpp::Category::getInstance("k.utils")) << message; });
    isConfigured = true;
}

}  // namespace korva
