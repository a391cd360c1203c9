// SPDX-License-Identifier: Apache-2.0
#include "utils/log_hook.h"

#include <cstddef>
#include <utility>
#include <vector>

namespace korva {
namespace {

constexpr std::size_t kKeptMessages = 100;

struct UtilityLog {
    std::function<void(const std::string&)> sink;
    std::vector<std::string> kept;
};

// Reached from the host configuration reader, which may run while other static objects are made.
UtilityLog& utilityLog() {
    static UtilityLog log;
    return log;
}

}  // namespace

void setUtilityLogSink(std::function<void(const std::string&)> sink) {
    UtilityLog& log = utilityLog();
    log.sink = std::move(sink);
    if (log.sink) {
        for (const std::string& message : std::exchange(log.kept, {})) {
            log.sink(message);
        }
    }
}

void logUtilityMessage(const std::string& message) noexcept {
    try {
        UtilityLog& log = utilityLog();
        if (log.sink) {
            log.sink(message);
        } else if (log.kept.size() < kKeptMessages) {
            log.kept.push_back(message);
        }
    } catch (...) {  // NOLINT(bugprone-empty-catch): there is nowhere else to tell it
    }
}

}  // namespace korva
