// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "xml/log.h"

#include <memory>
#include <string>

namespace korva {

class XmlLog;

/// Creates the result document of the run and installs it as theLog.
class LogLifetimeController {
  public:
    explicit LogLifetimeController(const std::string& name);
    LogLifetimeController(const LogLifetimeController&) = delete;
    LogLifetimeController& operator=(const LogLifetimeController&) = delete;
    /// Saves the document unless close() has done so.
    ~LogLifetimeController();

    /// Saves the document. Throws what saving throws.
    void close();

  private:
    std::unique_ptr<XmlLog> log_;
};

/// Configures log4cpp for the session and installs theDebugLog.
class DebugLogLifetimeController {
  public:
    DebugLogLifetimeController(bool debug, bool verbose);
    DebugLogLifetimeController(const DebugLogLifetimeController&) = delete;
    DebugLogLifetimeController& operator=(const DebugLogLifetimeController&) = delete;
    ~DebugLogLifetimeController();

  private:
    std::unique_ptr<DebugLog> log_;
};

}  // namespace korva
