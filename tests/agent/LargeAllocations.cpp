#include "tests/agent/LargeAllocations.h"

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

#include <malloc.h>

namespace {

std::atomic<long> liveLargeBlocks{0};
thread_local std::size_t refusedFrom = std::numeric_limits<std::size_t>::max();

void count(void* block, long change) {
    if (block != nullptr && ::malloc_usable_size(block) >= kolvan::test::kLargeAllocationBytes) {
        liveLargeBlocks += change;
    }
}

}  // namespace

// Replaces the library's global operators in this program. All forms without an alignment, because
// an address sanitizer's own ones would not match.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    void* block = size < refusedFrom ? std::malloc(size == 0 ? 1 : size) : nullptr;
    count(block, 1);
    return block;
}

void* operator new(std::size_t size) {
    void* block = operator new(size, std::nothrow);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void* operator new[](std::size_t size) {
    return operator new(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return operator new(size, std::nothrow);
}

void operator delete(void* block) noexcept {
    count(block, -1);
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    operator delete(block);
}

void operator delete(void* block, const std::nothrow_t&) noexcept {
    operator delete(block);
}

void operator delete[](void* block) noexcept {
    operator delete(block);
}

void operator delete[](void* block, std::size_t) noexcept {
    operator delete(block);
}

void operator delete[](void* block, const std::nothrow_t&) noexcept {
    operator delete(block);
}

namespace kolvan::test {

NoMemoryFrom::NoMemoryFrom(std::size_t bytes) {
    refusedFrom = bytes;
}

NoMemoryFrom::~NoMemoryFrom() {
    refusedFrom = std::numeric_limits<std::size_t>::max();
}

long liveLargeAllocations() {
    return liveLargeBlocks;
}

}  // namespace kolvan::test
