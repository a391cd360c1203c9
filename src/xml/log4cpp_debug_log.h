// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "xml/log.h"

#include <string>

namespace korva {

/// Writes to the log4cpp category "k.log" at INFO, bytes as they are.
class Log4cppDebugLog : public DebugLog {
  public:
    Log4cppDebugLog(bool debugMode, bool verboseMode);

    void log(const std::string& text) override;
    void log(const boost::format& text) override;
    /// The error's plain-text report.
    void log(const ExTraceable& error) override;
    bool isVerboseMode() const override { return verboseMode_; }
    bool isDebugMode() const override { return debugMode_; }

  private:
    bool debugMode_;
    bool verboseMode_;
};

}  // namespace korva
