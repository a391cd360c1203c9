// SPDX-License-Identifier: Apache-2.0
#include "tallowick/second_error.h"

#include "commons/exception.h"
#include "xml/log.h"

#include <iostream>

namespace korva {

void tellSecondError(const std::exception& error) noexcept {
    try {
        std::cerr << error.what();
        if (const auto* traceable = dynamic_cast<const ExTraceable*>(&error)) {
            theDebugLog->log(*traceable);
        } else {
            theDebugLog->log(std::string(error.what()));
        }
    } catch (...) {  // NOLINT(bugprone-empty-catch): out of memory; the first error has been told
    }
}

}  // namespace korva
