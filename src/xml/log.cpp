// SPDX-License-Identifier: Apache-2.0
#include "xml/log.h"

namespace korva {

Log* theLog = nullptr;
DebugLog* theDebugLog = nullptr;

}  // namespace korva
