// SPDX-License-Identifier: Apache-2.0
// relay MICROSECONDS NEAR FAR NETWORK
//
// Makes a TUN device NEAR in the network namespace that it runs in and a TUN device FAR in the one that the
// file NETWORK names, prints "ready", and passes packets between the two until it is killed, each so many
// microseconds after it came: a link with a fixed one-way delay, without loss and without a limit of its own.
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <tuple>

namespace {

using Clock = std::chrono::steady_clock;

// A packet of 64 KiB, which is up to forty segments of TCP in one, and the header before it.
constexpr std::size_t kMaxPacketSize = 65536 + 64;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

int openDescriptor(const char* path, int flags) {
    const int fd = open(path, flags | O_CLOEXEC);
    if (fd < 0) {
        fail(path);
    }
    return fd;
}

// The header in front of each packet tells what is left to segment and to sum: it is passed on as it came, so
// that the kernel at the other end goes on from there, and nothing is cut into single segments on the way.
int openTun(const char* name) {
    const int fd = openDescriptor("/dev/net/tun", O_RDWR | O_NONBLOCK);
    ifreq request{};
    std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    request.ifr_flags = IFF_TUN | IFF_NO_PI | IFF_VNET_HDR;
    if (ioctl(fd, TUNSETIFF, &request) < 0) {
        fail(std::string("the device ") + name);
    }
    if (ioctl(fd, TUNSETOFFLOAD, TUN_F_CSUM | TUN_F_TSO4 | TUN_F_TSO6) < 0) {
        fail(std::string("the offloads of ") + name);
    }
    return fd;
}

int openTunIn(const char* network, const char* name) {
    const int own = openDescriptor("/proc/self/ns/net", O_RDONLY);
    const int other = openDescriptor(network, O_RDONLY);
    if (setns(other, CLONE_NEWNET) != 0) {
        fail(network);
    }
    const int fd = openTun(name);
    if (setns(own, CLONE_NEWNET) != 0) {
        fail("the own network");
    }
    close(own);
    close(other);
    return fd;
}

/// One way through the relay.
class Direction {
  public:
    Direction(int from, int to, Clock::duration delay) : from_(from), to_(to), delay_(delay) {}

    /// Takes what waits at the one end.
    void receive() {
        for (;;) {
            const ssize_t size = read(from_, buffer_.data(), buffer_.size());
            if (size <= 0) {
                return;
            }
            const auto length = static_cast<std::size_t>(size);
            Packet& packet = queue_.emplace_back(
                Packet{Clock::now() + delay_, length, std::make_unique_for_overwrite<char[]>(length)});
            std::memcpy(packet.bytes.get(), buffer_.data(), length);
        }
    }

    /// Passes on at the other end what has been here for long enough.
    void send() {
        while (!queue_.empty() && queue_.front().due <= Clock::now()) {
            const Packet& packet = queue_.front();
            // What the kernel does not take, a device that is down say, is lost as on any network.
            std::ignore = write(to_, packet.bytes.get(), packet.size);
            queue_.pop_front();
        }
    }

    std::optional<Clock::time_point> nextDue() const {
        return queue_.empty() ? std::nullopt : std::optional(queue_.front().due);
    }

  private:
    struct Packet {
        Clock::time_point due;
        std::size_t size;
        std::unique_ptr<char[]> bytes;
    };

    int from_;
    int to_;
    Clock::duration delay_;
    std::deque<Packet> queue_;
    std::array<char, kMaxPacketSize> buffer_;
};

timespec waitUntil(Clock::time_point due) {
    const auto left = std::chrono::nanoseconds(std::max(due - Clock::now(), Clock::duration::zero())).count();
    return {left / 1000000000, left % 1000000000};
}

[[noreturn]] void relay(int near, int far, Clock::duration delay) {
    Direction there(near, far, delay);
    Direction back(far, near, delay);
    for (;;) {
        there.receive();
        back.receive();
        there.send();
        back.send();
        std::optional<Clock::time_point> due = there.nextDue();
        if (back.nextDue() && (!due || *back.nextDue() < *due)) {
            due = back.nextDue();
        }
        std::array<pollfd, 2> ends{{{near, POLLIN, 0}, {far, POLLIN, 0}}};
        const timespec wait = due ? waitUntil(*due) : timespec{};
        std::ignore = ppoll(ends.data(), ends.size(), due ? &wait : nullptr, nullptr);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "usage: relay MICROSECONDS NEAR FAR NETWORK\n";
        return 2;
    }
    try {
        const std::chrono::microseconds delay(std::stol(argv[1]));
        prctl(PR_SET_TIMERSLACK, 1);  // else a sleep may last 50 microseconds longer than it was asked for
        const int near = openTun(argv[2]);
        const int far = openTunIn(argv[4], argv[3]);
        std::cout << "ready" << std::endl;
        relay(near, far, delay);
    } catch (const std::exception& e) {
        std::cerr << "relay: " << e.what() << "\n";
        return 1;
    }
}
