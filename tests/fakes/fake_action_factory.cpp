// SPDX-License-Identifier: Apache-2.0
#include "fakes/fake_action_factory.h"

#include "tallowick/action_factory.h"

namespace korva {
namespace test {

std::function<std::unique_ptr<Action>(const config&)> makeAction;

}  // namespace test

std::unique_ptr<Action> getActionById(const config& cfg) {
    return test::makeAction(cfg);
}

}  // namespace korva
