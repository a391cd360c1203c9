// SPDX-License-Identifier: Apache-2.0
#include "support/network_faults.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>

namespace korva::test {
namespace {

NetworkFaults* current = nullptr;

bool isAlarmHeld() {
    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, SIGALRM) == 1;
}

}  // namespace

NetworkFaults::NetworkFaults() {
    current = this;
}

NetworkFaults::~NetworkFaults() {
    current = nullptr;
}

}  // namespace korva::test

using korva::test::current;
using korva::test::isAlarmHeld;

// The linker gives calls of a wrapped function to __wrap_…, and calls of __real_… to it (ld's --wrap).
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
int __real_getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** result);
int __real_socket(int domain, int type, int protocol);
int __real_connect(int fd, const sockaddr* address, socklen_t size);

int __wrap_getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** result) {
    if (current != nullptr) {
        current->alarmHeldWhileResolving = isAlarmHeld();
        if (current->resolveCode != 0) {
            return current->resolveCode;
        }
    }
    const int code = __real_getaddrinfo(host, service, hints, result);
    if (code == 0 && current != nullptr && current->firstPort != 0) {
        reinterpret_cast<sockaddr_in*>((*result)->ai_addr)->sin_port = htons(current->firstPort);
    }
    return code;
}

int __wrap_socket(int domain, int type, int protocol) {
    if (current != nullptr && current->socketError != 0) {
        errno = current->socketError;
        return -1;
    }
    return __real_socket(domain, type, protocol);
}

int __wrap_connect(int fd, const sockaddr* address, socklen_t size) {
    if (current == nullptr) {
        return __real_connect(fd, address, size);
    }
    ++current->connects;
    current->alarmHeldWhileConnecting = isAlarmHeld();
    socklen_t optionSize = sizeof(current->userTimeoutAtConnect);
    getsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &current->userTimeoutAtConnect, &optionSize);
    if (current->connectError != 0) {
        errno = current->connectError;
        return -1;
    }
    if (!current->interruptedConnect) {
        return __real_connect(fd, address, size);
    }
    const int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    __real_connect(fd, address, size);
    fcntl(fd, F_SETFL, flags);
    errno = EINTR;
    return -1;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
}
