// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/exception.h"
#include "tallowick/actions.h"
#include "tallowick/options.h"

#include <memory>

namespace korva {

KORVA_ERROR_TAG(UnknownAction, "Unknown action passed to the function. Probably bug in the options parser")

/// The action that `cfg` asks for, still without its configuration. Throws UnknownAction.
std::unique_ptr<Action> getActionByIdInternal(const config& cfg);

/// The same, ready to be executed; `cfg` must outlive it.
std::unique_ptr<Action> getActionById(const config& cfg);

}  // namespace korva
