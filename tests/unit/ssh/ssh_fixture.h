// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "fakes/fake_libssh2.h"
#include "ssh/ssh-transfer.h"
#include "support/captured_log.h"
#include "support/loopback_listener.h"
#include "support/wait_probe.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace korva::test {

inline constexpr const char* kPassword = "Sesame-4711";

/// Remembers what it was told.
class RecordingCounter : public Ssh::Counter {
  public:
    void operator()(int bytes) override { sizes.push_back(bytes); }
    std::vector<int> sizes;
};

/// An Ssh over a FakeLibssh2; its socket is connected to a port that nobody serves.
class SshOverFake : public testing::Test {
  protected:
    /// Connects and forgets what was recorded meanwhile.
    void connect() {
        ssh_ = std::make_unique<Ssh>("127.0.0.1", "user", kPassword, false, listener_.port());
        fake_.calls.clear();
        fake_.callsInBlockingMode.clear();
        waits_.waits.clear();
        log_.clear();
    }

    Ssh& ssh() { return *ssh_; }
    void disconnect() { ssh_.reset(); }
    FakeLibssh2& fake() { return fake_; }
    CapturedLog& log() { return log_; }
    WaitProbe& waits() { return waits_; }
    const LoopbackListener& listener() const { return listener_; }

  private:
    LoopbackListener listener_;
    FakeLibssh2 fake_;
    WaitProbe waits_;
    CapturedLog log_;
    std::unique_ptr<Ssh> ssh_;
};

}  // namespace korva::test
