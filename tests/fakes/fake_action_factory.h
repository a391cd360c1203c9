// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "tallowick/actions.h"
#include "tallowick/options.h"

#include <functional>
#include <memory>

namespace korva::test {

/// What getActionById() does in programs linked with fake_action_factory.cpp.
extern std::function<std::unique_ptr<Action>(const config&)> makeAction;

/// An action that does what a test wants.
class ScriptedAction : public Action {
  public:
    ScriptedAction(bool withStatus, std::function<void(ScriptedAction&)> work)
        : Action(withStatus), work_(std::move(work)) {}
    void execute() override { work_(*this); }
    void setResult(Log* log) override { result = log; }

    Log* result = nullptr;

  private:
    std::function<void(ScriptedAction&)> work_;
};

}  // namespace korva::test
