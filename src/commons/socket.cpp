// SPDX-License-Identifier: Apache-2.0
#include "commons/socket.h"

#include "commons/log_line.h"
#include "commons/signal_hold.h"

#include <log4cpp/Category.hh>

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace korva {
namespace {

constexpr const char* kSourceName = "./socket";

// A silent remote command is legitimate, a peer that vanished is not: these tell them apart.
constexpr int kKeepAliveIdleSeconds = 60;
constexpr int kKeepAliveIntervalSeconds = 15;
constexpr int kKeepAliveProbes = 4;
constexpr int kUserTimeoutMs = 120000;

log4cpp::Category& category() {
    return log4cpp::Category::getInstance("k.libssh2pp.Socket");
}

void setOption(int fd, int level, int option, int value) {
    // A kernel without the option costs speed or an earlier error, never the connection.
    std::ignore = setsockopt(fd, level, option, &value, sizeof(value));
}

// connect(2) that a signal interrupted goes on by itself; its outcome is in SO_ERROR.
int awaitInterruptedConnect(int fd) {
    pollfd descriptor{fd, POLLOUT, 0};
    while (poll(&descriptor, 1, -1) == -1) {
        if (errno != EINTR) {
            return errno;
        }
    }
    int error = 0;
    socklen_t size = sizeof(error);
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

int connectTo(int fd, const addrinfo& address) {
    if (connect(fd, address.ai_addr, address.ai_addrlen) == 0) {
        return 0;
    }
    return errno == EINTR ? awaitInterruptedConnect(fd) : errno;
}

[[noreturn]] void throwConnectError(const std::string& host, int error) {
    switch (error) {
        case ENETUNREACH:
            throw KORVA_EXC(NetworkUnreachable) % host;
        case ETIMEDOUT:
            throw KORVA_EXC(ConnectionTimedOut) % host;
        case ECONNREFUSED:
            throw KORVA_EXC(ConnectionRefused) % host;
        case EHOSTUNREACH:
            throw KORVA_EXC(HostUnreachable) % host;
        default:
            throw KORVA_EXC(ConnectionFault) % host % std::strerror(error);
    }
}

}  // namespace

Socket::Socket(const std::string& host, unsigned short port) {
    const SignalHold hold;
    debugLine(category()) << "Connecting to " << host << ":" << port << "\n";
    addr_ = gethostbyname(host, port);
    fd_ = socket(addr_->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
        const int error = errno;
        freeaddrinfo(addr_);
        throw std::runtime_error(std::string("socket: ") + std::strerror(error));
    }
    // Nagle's algorithm against delayed acknowledgements costs 45 ms in every remote command.
    setOption(fd_, IPPROTO_TCP, TCP_NODELAY, 1);
    if (const int error = connectTo(fd_, *addr_); error != 0) {
        errorLine(category()) << "Unable to open socket to " << host << ":" << port << ": "
                              << std::strerror(error) << "\n";
        // The descriptor and the address list are left to the end of the process, which is near.
        throwConnectError(host, error);
    }
    setOption(fd_, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(fd_, IPPROTO_TCP, TCP_KEEPIDLE, kKeepAliveIdleSeconds);
    setOption(fd_, IPPROTO_TCP, TCP_KEEPINTVL, kKeepAliveIntervalSeconds);
    setOption(fd_, IPPROTO_TCP, TCP_KEEPCNT, kKeepAliveProbes);
    // Only now: set before, it would shorten the system's own limit on connecting.
    setOption(fd_, IPPROTO_TCP, TCP_USER_TIMEOUT, kUserTimeoutMs);
    debugLine(category()) << "Connected";
}

Socket::~Socket() {
    freeaddrinfo(addr_);
    close(fd_);
}

addrinfo* Socket::gethostbyname(const std::string& host, unsigned short port) {
    // ERROR on purpose, though nothing has failed yet: the host must show at every log level.
    errorLine(category()) << "Resolving " << host;
    addrinfo* result = nullptr;
    const int code = getaddrinfo(host.c_str(), std::to_string(port).c_str(), nullptr, &result);
    if (code != 0) {
        errorLine(category()) << "Unable to resolve " << host << ": " << gai_strerror(code);
        throw KORVA_EXC(HostNotFound) % host % gai_strerror(code);
    }
    return result;
}

}  // namespace korva
