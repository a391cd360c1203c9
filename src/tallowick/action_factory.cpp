// SPDX-License-Identifier: Apache-2.0
#include "tallowick/action_factory.h"

namespace korva {
namespace {

constexpr const char* kSourceName = "./driver";

}  // namespace

std::unique_ptr<Action> getActionByIdInternal(const config& cfg) {
    switch (cfg.action) {
        case kSendScout:
            return std::make_unique<SendScoutAction>();
        case kGetDumpingStatus:
            return std::make_unique<GetDumpingStatusAction>();
        case kRemoveAgent:
            return std::make_unique<RemoveAgentAction>();
        case kRemoveDumpingStatus:
            return std::make_unique<RemoveDumpingStatusAction>();
        default:
            throw KORVA_EXC(UnknownAction);
    }
}

std::unique_ptr<Action> getActionById(const config& cfg) {
    std::unique_ptr<Action> action = getActionByIdInternal(cfg);
    action->setConfig(&cfg);
    return action;
}

}  // namespace korva
