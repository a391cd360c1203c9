// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <exception>

namespace korva {

/// Tells an error that came after the one that decides the run's status, in the debug log and on standard
/// error. Needs theDebugLog.
void tellSecondError(const std::exception& error) noexcept;

}  // namespace korva
