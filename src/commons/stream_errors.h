// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/exception.h"

namespace korva {

KORVA_ERROR_TAG(StreamRead, "Cannot read data from the stream")
KORVA_ERROR_TAG(StreamWrite, "Cannot write data to the stream")

}  // namespace korva
