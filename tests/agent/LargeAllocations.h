#pragma once

#include <cstddef>

namespace kolvan::test {

/// Blocks of at least this size are counted: far above anything but a test's own long texts.
constexpr std::size_t kLargeAllocationBytes = 256 * 1024;

/// Number of blocks of that size which this process has taken with `operator new` and not given
/// back. Any thread.
long liveLargeAllocations();

/// While there is one, `operator new` has no memory for blocks of this size or more on this thread.
class NoMemoryFrom {
public:
    explicit NoMemoryFrom(std::size_t bytes);
    ~NoMemoryFrom();
    NoMemoryFrom(const NoMemoryFrom&) = delete;
    NoMemoryFrom& operator=(const NoMemoryFrom&) = delete;
};

}  // namespace kolvan::test
