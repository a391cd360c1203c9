// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

namespace korva::test {

/// Lets one coming allocation with new fail: the first that asks for at least `minimumSize` bytes. All others
/// succeed. For programs linked with allocation_failure.cpp.
class AllocationFailure {
  public:
    explicit AllocationFailure(std::size_t minimumSize);
    AllocationFailure(const AllocationFailure&) = delete;
    AllocationFailure& operator=(const AllocationFailure&) = delete;
    ~AllocationFailure();

    /// Whether the failure has taken place.
    static bool happened();
};

}  // namespace korva::test
