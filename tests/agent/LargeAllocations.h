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

/// While there is one, `operator new` has once no memory for a block of this size or more, on the
/// first of the threads started meanwhile that asks for one.
class NoMemoryOnceOnANewThread {
public:
    explicit NoMemoryOnceOnANewThread(std::size_t bytes);
    ~NoMemoryOnceOnANewThread();
    NoMemoryOnceOnANewThread(const NoMemoryOnceOnANewThread&) = delete;
    NoMemoryOnceOnANewThread& operator=(const NoMemoryOnceOnANewThread&) = delete;

    /// Whether it has been asked.
    static bool wasAsked();
};

}  // namespace kolvan::test
