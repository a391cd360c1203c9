// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace korva {

/// Gives a file to the user and group of the panel's account. Throws CantTakeFileOwnership, also when this
/// host has no such account.
void giveToPanel(const std::string& path);

}  // namespace korva
