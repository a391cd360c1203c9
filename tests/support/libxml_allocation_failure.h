// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <libxml/xmlmemory.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace korva::test {

/// Lets one coming allocation of libxml2 fail: the first one, or a later one by its number.
class LibxmlAllocationFailure {
  public:
    explicit LibxmlAllocationFailure(int number = 1) {
        xmlMemGet(&free_, &malloc_, &realloc_, &strdup_);
        left() = number;
        xmlMemSetup(&std::free, &allocate, &reallocate, &duplicate);
    }
    LibxmlAllocationFailure(const LibxmlAllocationFailure&) = delete;
    LibxmlAllocationFailure& operator=(const LibxmlAllocationFailure&) = delete;
    ~LibxmlAllocationFailure() { xmlMemSetup(free_, malloc_, realloc_, strdup_); }

    /// Whether the failure has taken place.
    static bool happened() { return left() <= 0; }

  private:
    static int& left() {
        static int count = 0;
        return count;
    }
    static bool fails() { return --left() == 0; }
    static void* allocate(std::size_t size) { return fails() ? nullptr : std::malloc(size); }
    static void* reallocate(void* memory, std::size_t size) {
        return fails() ? nullptr : std::realloc(memory, size);
    }
    static char* duplicate(const char* text) { return fails() ? nullptr : ::strdup(text); }

    xmlFreeFunc free_ = nullptr;
    xmlMallocFunc malloc_ = nullptr;
    xmlReallocFunc realloc_ = nullptr;
    xmlStrdupFunc strdup_ = nullptr;
};

}  // namespace korva::test
