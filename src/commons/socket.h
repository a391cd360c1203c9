// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/exception.h"

#include <string>

struct addrinfo;

namespace korva {

KORVA_ERROR_TAG(HostNotFound, "Unable to resolve hostname %1%: %2%")
KORVA_ERROR_TAG(NetworkUnreachable, "Specified network host %1% is unreachable")
KORVA_ERROR_TAG(ConnectionTimedOut, "Timeout while attempting connection to host %1%")
KORVA_ERROR_TAG(ConnectionRefused, "No one listening on the remote address at host %1%")
KORVA_ERROR_TAG(HostUnreachable, "No route to host %1%")
KORVA_ERROR_TAG(ConnectionFault, "Unable to connect to host %1%: %2%")

/// A TCP connection to the source host, in blocking mode.
class Socket {
  public:
    /// Resolves `host` and connects to its first address; no other address is tried. Throws HostNotFound, one
    /// of the five connection errors above by errno, or std::runtime_error when there is no socket to be had.
    Socket(const std::string& host, unsigned short port);
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket();

    int fd() const { return fd_; }

    /// getaddrinfo(3) without hints. The caller owns the list. Throws HostNotFound.
    static addrinfo* gethostbyname(const std::string& host, unsigned short port);

  private:
    int fd_ = -1;
    addrinfo* addr_ = nullptr;
};

}  // namespace korva
