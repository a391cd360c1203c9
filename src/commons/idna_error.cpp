// SPDX-License-Identifier: Apache-2.0
#include "commons/idna_error.h"

#include <idna.h>

namespace korva::idn {

const char* IdnaError::what() const noexcept {
    return idna_strerror(static_cast<Idna_rc>(code_));
}

}  // namespace korva::idn
