#include "server/JsonText.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <limits>
#include <new>

// The sanitizers end a program that asks for more memory than there can be; here it is to be told.
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options() {
    return "allocator_may_return_null=1";
}

namespace cagnt1 {

namespace {

// More than any process has addresses for.
constexpr std::size_t kTooMuch = std::numeric_limits<std::ptrdiff_t>::max() / 2;

TEST(JsonAllocatorTest, MemoryThatIsMissingIsAnException) {
    JsonAllocator allocator;

    EXPECT_THROW((void)allocator.Malloc(kTooMuch), std::bad_alloc);
}

TEST(JsonAllocatorTest, BlockThatCannotGrowStaysAsItIs) {
    JsonAllocator allocator;
    void* const block = allocator.Malloc(5);
    std::memcpy(block, "text", 5);

    EXPECT_THROW((void)allocator.Realloc(block, 5, kTooMuch), std::bad_alloc);

    EXPECT_STREQ("text", static_cast<const char*>(block));
    JsonAllocator::Free(block);
}

TEST(JsonAllocatorTest, NothingTakesNoBlock) {
    JsonAllocator allocator;

    EXPECT_EQ(nullptr, allocator.Malloc(0));
    EXPECT_EQ(nullptr, allocator.Realloc(nullptr, 0, 0));
}

// What is not given back is found by the address sanitizer.
TEST(JsonAllocatorTest, BlockThatShrinksToNothingIsGivenBack) {
    JsonAllocator allocator;

    EXPECT_EQ(nullptr, allocator.Realloc(allocator.Malloc(100), 100, 0));
}

}  // namespace

}  // namespace cagnt1
