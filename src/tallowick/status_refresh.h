// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>

namespace korva {

class Action;

/// The action whose dumping status each tick refreshes; null for none.
extern std::atomic<Action*> pAction;

/// Seconds between two ticks.
inline constexpr unsigned kRefreshIntervalSeconds = 5;

/// The SIGALRM handler. It only registers the action with its connection and arms the next tick: files and
/// network wait for a safe point.
void update_status(int signal);

/// Refreshes the dumping status of `action` while it lives.
class StatusRefreshScope {
  public:
    explicit StatusRefreshScope(Action& action);
    StatusRefreshScope(const StatusRefreshScope&) = delete;
    StatusRefreshScope& operator=(const StatusRefreshScope&) = delete;
    /// Neither a tick that is still pending nor one that was not served yet refreshes anything afterwards.
    ~StatusRefreshScope();

  private:
    Action& action_;
};

}  // namespace korva
