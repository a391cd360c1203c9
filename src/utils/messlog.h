// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace korva {

/// Writes "program: message" to standard error and to standard output, followed by the text of errno when
/// that is not 0, then ends the process with `status` unless that is 0. `flag` has no meaning here.
[[gnu::format(printf, 3, 4)]] void messlog2(int status, int flag, const char* format, ...);

/// To be called by a child process between fork and exec. From then on messlog2() leaves alone what belongs
/// to the parent: it writes past the stdio buffers and ends the process without running exit handlers.
void messlogInForkedChild();

}  // namespace korva
