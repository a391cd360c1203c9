// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/exception.h"

#include <string>

namespace korva {

KORVA_ERROR_TAG(FileWrite, "Error during %1% write: %2%")

/// Writes a file of the session directory that holds nothing but the name of another file, and flushes it to
/// the disk. Until it is whole, what stood there before stays. Throws FileWrite.
void writeNameRecord(const std::string& path, const std::string& name);

}  // namespace korva
