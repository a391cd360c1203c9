// SPDX-License-Identifier: Apache-2.0
#include "tallowick/status_refresh.h"

#include "tallowick/actions.h"

#include <unistd.h>

#include <csignal>

namespace korva {
namespace {

void armNextTick() {
    struct sigaction handler {};
    handler.sa_handler = &update_status;
    sigaction(SIGALRM, &handler, nullptr);  // fails for bad arguments only
    alarm(kRefreshIntervalSeconds);
}

}  // namespace

std::atomic<Action*> pAction = nullptr;
static_assert(std::atomic<Action*>::is_always_lock_free, "the handler reads it");

void update_status(int /*signal*/) {
    Action* const action = pAction;
    if (action == nullptr) {
        return;
    }
    action->setAlarmFunction();
    armNextTick();
}

StatusRefreshScope::StatusRefreshScope(Action& action) : action_(action) {
    pAction = &action;
    armNextTick();
}

StatusRefreshScope::~StatusRefreshScope() {
    pAction = nullptr;
    action_.clearAlarmFunction();
}

}  // namespace korva
