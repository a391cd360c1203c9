// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace korva::test {

/// A TCP port of 127.0.0.1 on which connections are waiting to be accepted.
class LoopbackListener {
  public:
    LoopbackListener() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        if (::bind(fd_, generic, size) != 0 || ::listen(fd_, SOMAXCONN) != 0 ||
            ::getsockname(fd_, generic, &size) != 0) {
            throw std::runtime_error("cannot listen on 127.0.0.1");
        }
        port_ = ntohs(address.sin_port);
    }
    LoopbackListener(const LoopbackListener&) = delete;
    LoopbackListener& operator=(const LoopbackListener&) = delete;
    ~LoopbackListener() { close(); }

    unsigned short port() const { return port_; }
    int fd() const { return fd_; }

    /// From here on connections to the port are refused.
    void close() {
        if (fd_ >= 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }

    /// The next connection; the caller owns the descriptor.
    int accept() const { return ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC); }

  private:
    int fd_;
    unsigned short port_ = 0;
};

/// A connected pair of stream sockets.
class SocketPair {
  public:
    SocketPair() {
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_) != 0) {
            throw std::runtime_error("cannot make a pair of sockets");
        }
    }
    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;
    ~SocketPair() {
        ::close(fds_[0]);
        ::close(fds_[1]);
    }

    int ours() const { return fds_[0]; }
    int theirs() const { return fds_[1]; }

  private:
    int fds_[2]{};
};

}  // namespace korva::test
