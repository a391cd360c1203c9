// SPDX-License-Identifier: Apache-2.0
#include "tallowick/action_factory.h"

#include "tallowick/dump_selection.h"
#include "tallowick/retrieve_content.h"
#include "tallowick/retrieve_dump.h"
#include "tallowick/send_agent.h"

namespace korva {
namespace {

constexpr const char* kSourceName = "./driver";

}  // namespace

std::unique_ptr<Action> getActionByIdInternal(const config& cfg) {
    switch (cfg.action) {
        case kSendScout:
            return std::make_unique<SendScoutAction>();
        case kDeployAgent:
            return std::make_unique<SendAgentAction>();
        case kGetDumpingStatus:
            return std::make_unique<GetDumpingStatusAction>();
        case kDumpSelected:
        case kDumpAll:
            return std::make_unique<RetrieveDumpAction>(buildDumperInput(cfg));
        case kGetContent:
            return std::make_unique<RetrieveContentAction>();
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
