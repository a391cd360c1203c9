// SPDX-License-Identifier: Apache-2.0
#include "tallowick/start_stop_logger.h"

#include "commons/sh_quote.h"
#include "xml/log.h"

#include <boost/algorithm/string/replace.hpp>
#include <boost/format.hpp>

#include <unistd.h>

#include <utility>

namespace korva {
namespace {

// `commandLine` is quoted word by word, and so is what is looked for.
std::string hide(std::string commandLine, const std::vector<std::string>& secrets) {
    for (const std::string& secret : secrets) {
        boost::algorithm::replace_all(commandLine, sh_quote(secret), "********");
    }
    return commandLine;
}

}  // namespace

std::vector<std::function<void()>> childDaemonHandlers;

StartStopLogger::StartStopLogger(std::string name, int argc, char** argv,
                                 const std::vector<std::string>& secrets)
    : name_(std::move(name)), pid_(getpid()) {
    for (int i = 0; i < argc; ++i) {
        arguments_ << argv[i];
    }
    theDebugLog->log(name_ + " started : " + hide(arguments_.getStringRepresentation(), secrets));
    childDaemonHandlers.emplace_back([this] { daemonized(); });
}

StartStopLogger::~StartStopLogger() {
    childDaemonHandlers.pop_back();
    try {
        const std::string suffix = exitCode_ == -1 ? std::string(" (exit code is not reported)")
                                                   : "Exit code: " + std::to_string(exitCode_);
        theDebugLog->log(name_ + " finished. " + suffix);
    } catch (...) {  // NOLINT(bugprone-empty-catch): the run has ended; only the log lacks the line
    }
}

void StartStopLogger::daemonized() const {
    theDebugLog->log(boost::format("%1% %2% -> (%3% daemon)") % name_ % pid_ % getpid());
}

}  // namespace korva
