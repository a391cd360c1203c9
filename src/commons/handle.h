// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/exception.h"

#include <cstdlib>
#include <utility>

namespace korva {

KORVA_ERROR_TAG(InvalidHandle, "Invalid handle passed")

template <typename T>
void DefaultDestructionFunc(T resource) {
    std::free(resource);
}

/// Any value but null is valid.
template <typename T>
struct DefaultValidationPolicy {
    static bool isValid(T resource) { return resource != nullptr; }
};

/// Owns a resource of a C library: throws InvalidHandle when it is given an invalid one, frees a valid one.
template <typename T, auto DestructionFunc = &DefaultDestructionFunc<T>,
          typename ValidationPolicy = DefaultValidationPolicy<T>>
class Handle {
  public:
    explicit Handle(T resource) : resource_(resource) {
        if (!ValidationPolicy::isValid(resource_)) {
            throw Exc<&InvalidHandle>(static_cast<const char*>(__PRETTY_FUNCTION__), "./handle", __LINE__);
        }
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    virtual ~Handle() {
        if (ValidationPolicy::isValid(resource_)) {
            DestructionFunc(resource_);
        }
    }

    T get() const { return resource_; }
    /// Gives the resource up: the caller owns it now.
    T release() { return std::exchange(resource_, T{}); }

  private:
    T resource_;
};

}  // namespace korva
