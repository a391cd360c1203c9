// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace korva::test {

/// Takes the calls of fsync(2) of a program linked with fake_fsync.cpp, which then do nothing.
class FakeFsync {
  public:
    /// With an `error` other than 0 every call fails with it.
    explicit FakeFsync(int error = 0);
    FakeFsync(const FakeFsync&) = delete;
    FakeFsync& operator=(const FakeFsync&) = delete;
    ~FakeFsync();

    /// The names that the files and directories had when they were flushed, in order.
    static const std::vector<std::string>& flushed();
};

}  // namespace korva::test
