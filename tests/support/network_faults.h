// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace korva::test {

/// Lets the network calls of the program under test go wrong while it lives, and looks at them. For programs
/// linked with --wrap=getaddrinfo, --wrap=socket and --wrap=connect.
class NetworkFaults {
  public:
    NetworkFaults();
    NetworkFaults(const NetworkFaults&) = delete;
    NetworkFaults& operator=(const NetworkFaults&) = delete;
    ~NetworkFaults();

    // Zero for none.
    int resolveCode = 0;              ///< the EAI_… of getaddrinfo()
    int socketError = 0;              ///< the errno of socket()
    int connectError = 0;             ///< the errno of connect(), which then does nothing
    unsigned short firstPort = 0;     ///< replaces the port of the first address that is found
    bool interruptedConnect = false;  ///< connect() ends with EINTR and goes on in the background

    // What was seen.
    int connects = 0;
    int userTimeoutAtConnect = -1;
    bool alarmHeldWhileResolving = false;
    bool alarmHeldWhileConnecting = false;
};

}  // namespace korva::test
