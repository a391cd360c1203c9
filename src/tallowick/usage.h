// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace korva {

/// Writes the usage text to standard output.
void usage();

}  // namespace korva
