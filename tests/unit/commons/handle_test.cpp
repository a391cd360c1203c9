// SPDX-License-Identifier: Apache-2.0
#include "commons/handle.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <type_traits>
#include <vector>

namespace korva {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<int*> freed;

void recordFree(int* resource) {
    freed.push_back(resource);
}

struct OnlyPositive {
    static bool isValid(int* resource) { return resource != nullptr && *resource > 0; }
};

class HandleTest : public testing::Test {
  protected:
    HandleTest() { freed.clear(); }

    int resource = 1;
};

TEST_F(HandleTest, BuiltFromNullThrowsInvalidHandleAndFreesNothing) {
    using IntHandle = Handle<int*, &recordFree>;
    try {
        const IntHandle handle(nullptr);
        FAIL();
    } catch (const Exc<&InvalidHandle>& error) {
        EXPECT_STREQ("Invalid handle passed", error.what());
    }
    EXPECT_THAT(freed, IsEmpty());
}

TEST_F(HandleTest, FreesItsResourceOnce) {
    {
        const Handle<int*, &recordFree> handle(&resource);
        EXPECT_EQ(&resource, handle.get());
        EXPECT_THAT(freed, IsEmpty());
    }
    EXPECT_THAT(freed, ElementsAre(&resource));
}

TEST_F(HandleTest, DoesNotFreeWhatWasReleased) {
    {
        Handle<int*, &recordFree> handle(&resource);
        EXPECT_EQ(&resource, handle.release());
        EXPECT_EQ(nullptr, handle.get());
    }
    EXPECT_THAT(freed, IsEmpty());
}

TEST_F(HandleTest, AsksItsPolicy) {
    using PositiveHandle = Handle<int*, &recordFree, OnlyPositive>;
    resource = -1;
    EXPECT_THROW(PositiveHandle{&resource}, Exc<&InvalidHandle>);
    EXPECT_THAT(freed, IsEmpty());
    resource = 1;
    { const PositiveHandle handle(&resource); }
    EXPECT_THAT(freed, ElementsAre(&resource));
}

TEST_F(HandleTest, FreesMallocedMemoryByDefault) {
    const Handle<char*> text(::strdup("leaks if nobody frees it"));
    EXPECT_STREQ("leaks if nobody frees it", text.get());
}

TEST_F(HandleTest, IsNotCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<Handle<char*>>);
    EXPECT_FALSE(std::is_copy_assignable_v<Handle<char*>>);
}

}  // namespace
}  // namespace korva
