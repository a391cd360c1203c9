// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "utils/log_hook.h"

#include <string>
#include <vector>

namespace korva::test {

/// Collects the messages of the functions in utils/ while it lives, without those that came before.
class UtilityLogCapture {
  public:
    UtilityLogCapture() {
        setUtilityLogSink([](const std::string&) {});
        setUtilityLogSink([this](const std::string& message) { messages_.push_back(message); });
    }
    UtilityLogCapture(const UtilityLogCapture&) = delete;
    UtilityLogCapture& operator=(const UtilityLogCapture&) = delete;
    ~UtilityLogCapture() { setUtilityLogSink({}); }

    const std::vector<std::string>& messages() const { return messages_; }

  private:
    std::vector<std::string> messages_;
};

}  // namespace korva::test
