// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/arg_list.h"

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace korva {

/// What is to be told when the program turns into a daemon.
extern std::vector<std::function<void()>> childDaemonHandlers;

/// Records the start and the end of a run in the debug log.
class StartStopLogger {
  public:
    /// Logs the command line; where it holds one of `secrets` whole, typed there by mistake, with that
    /// hidden. Parts of them stay, since words of the options may look like one.
    StartStopLogger(std::string name, int argc, char** argv, const std::vector<std::string>& secrets);
    StartStopLogger(const StartStopLogger&) = delete;
    StartStopLogger& operator=(const StartStopLogger&) = delete;
    ~StartStopLogger();

    void setExitCode(int exitCode) { exitCode_ = exitCode; }
    /// Logs the new process id beside the first one.
    void daemonized() const;

  private:
    std::string name_;
    pid_t pid_;
    int exitCode_ = -1;  // not reported
    ArgList arguments_;
};

}  // namespace korva
