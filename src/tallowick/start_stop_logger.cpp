// SPDX-License-Identifier: Apache-2.0
#include "tallowick/start_stop_logger.h"

#include "xml/log.h"

#include <boost/format.hpp>

#include <unistd.h>

namespace korva {

std::vector<std::function<void()>> childDaemonHandlers;

StartStopLogger::StartStopLogger(const std::string& name, int argc, char** argv, const Secrets& secrets)
    : name_(name), pid_(getpid()) {
    for (int i = 0; i < argc; ++i) {
        arguments_ << secrets.mask(argv[i]);
    }
    theDebugLog->log(name_ + " started : " + arguments_.getStringRepresentation());
    childDaemonHandlers.emplace_back([this] { daemonized(); });
}

StartStopLogger::~StartStopLogger() {
    childDaemonHandlers.pop_back();
    const std::string suffix = exitCode_ == -1 ? std::string(" (exit code is not reported)")
                                               : "Exit code: " + std::to_string(exitCode_);
    theDebugLog->log(name_ + " finished. " + suffix);
}

void StartStopLogger::daemonized() const {
    theDebugLog->log(boost::format("%1% %2% -> (%3% daemon)") % name_ % pid_ % getpid());
}

}  // namespace korva
