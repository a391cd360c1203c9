// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "xml/log.h"

#include <boost/format.hpp>

#include <string>
#include <vector>

namespace korva::test {

/// Is theDebugLog while it lives, and remembers what it was told.
class RecordingDebugLog : public DebugLog {
  public:
    RecordingDebugLog() { theDebugLog = this; }
    RecordingDebugLog(const RecordingDebugLog&) = delete;
    RecordingDebugLog& operator=(const RecordingDebugLog&) = delete;
    ~RecordingDebugLog() override { theDebugLog = nullptr; }

    void log(const std::string& text) override { texts.push_back(text); }
    void log(const boost::format& text) override { texts.push_back(text.str()); }
    void log(const ExTraceable& error) override {
        errors.emplace_back(error.what());
        severities.push_back(error.severity());
    }
    bool isVerboseMode() const override { return false; }
    bool isDebugMode() const override { return false; }

    std::vector<std::string> texts;
    std::vector<std::string> errors;
    std::vector<int> severities;  ///< of the errors
};

}  // namespace korva::test
