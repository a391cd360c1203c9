// SPDX-License-Identifier: Apache-2.0
#include "support/allocation_failure.h"

#include <cstdlib>
#include <new>

namespace {

bool armed = false;
std::size_t failingSize = 0;

void* allocateOrNull(std::size_t size) noexcept {
    if (armed && size >= failingSize) {
        armed = false;
        return nullptr;
    }
    return std::malloc(size != 0 ? size : 1);
}

void* allocate(std::size_t size) {
    if (void* memory = allocateOrNull(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) {
    return allocate(size);
}
void* operator new[](std::size_t size) {
    return allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return allocateOrNull(size);
}
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return allocateOrNull(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t& /*tag*/) noexcept {
    std::free(memory);
}

namespace korva::test {

AllocationFailure::AllocationFailure(std::size_t minimumSize) {
    failingSize = minimumSize;
    armed = true;
}

AllocationFailure::~AllocationFailure() {
    armed = false;
}

bool AllocationFailure::happened() {
    return !armed;
}

}  // namespace korva::test
