// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace korva {

// The sleeps below let signals in that a SignalHold keeps back, and need one around them.

/// Whether the socket takes bytes just now.
bool isWritable(int fd);

/// Sleeps until `fd` is readable (writable too, if it is not writable now), at most `timeoutMs`
/// milliseconds; a signal ends the sleep.
void waitForSocket(int fd, int timeoutMs);

/// Sleeps until bytes from the other side, or the end of the connection, are there. False after `timeoutMs`
/// milliseconds without either, however many signals came.
bool waitForFirstBytes(int fd, int timeoutMs);

}  // namespace korva
