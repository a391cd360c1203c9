// SPDX-License-Identifier: Apache-2.0
#include "fakes/fake_libssh2.h"
#include "ssh/libssh2pp.h"
#include "support/allocation_failure.h"
#include "support/loopback_listener.h"
#include "support/wait_probe.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <vector>

namespace korva::libssh2pp {
namespace {

using test::AllocationFailure;
using test::FakeLibssh2;
using test::SocketPair;
using test::WaitProbe;

TEST(OpenChannels, FindRoomInTheSessionThoughMemoryDoesNotSufficeAnyMore) {
    constexpr std::size_t kChannels = 1000;  // so that their room differs from all else in its size
    FakeLibssh2 fake;
    const WaitProbe waits;
    const SocketPair sockets;
    Session session(sockets.ours(), false, false);
    std::vector<std::unique_ptr<Channel>> channels;
    for (std::size_t count = 0; count < kChannels; ++count) {
        fake.nextChannel().free.assign(1000, LIBSSH2_ERROR_EAGAIN);
        channels.push_back(session.openExecChannel("command", "command", Channel::kNonBlocking));
    }
    fake.calls.reserve(fake.calls.size() + 20 * kChannels);
    const AllocationFailure failure(kChannels / 2 * sizeof(LIBSSH2_CHANNEL*));
    channels.clear();  // none is freed: the session keeps them
    EXPECT_FALSE(AllocationFailure::happened());
}

}  // namespace
}  // namespace korva::libssh2pp
