// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace korva::test {

/// Takes the calls of fsync(2) of a program linked with fake_fsync.cpp, which then do nothing. One at a time.
class FakeFsync {
  public:
    explicit FakeFsync(int failure = 0);
    FakeFsync(const FakeFsync&) = delete;
    FakeFsync& operator=(const FakeFsync&) = delete;
    ~FakeFsync();

    /// What the calls fail with; 0 for success.
    int error;
    /// Takes place with each call, before it fails or succeeds; gets the name that was flushed.
    std::function<void(const std::string& name)> onFlush = [](const std::string&) {};

    /// The names that the files and directories had when they were flushed, in order.
    static const std::vector<std::string>& flushed();
};

}  // namespace korva::test
