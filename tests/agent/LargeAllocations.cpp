#include "tests/agent/LargeAllocations.h"

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

#include <malloc.h>

namespace {

std::atomic<long> liveLargeBlocks{0};
constexpr std::size_t kNever = std::numeric_limits<std::size_t>::max();
thread_local std::size_t refusedFrom = kNever;

std::atomic<std::size_t> refusedOnceFrom{kNever};
std::atomic<bool> hasRefused{false};

// Whether the thread has asked for its first block since there is a size that is refused once.
bool isNewThread() {
    thread_local const bool isNew = refusedOnceFrom != kNever;
    return isNew;
}

bool isRefused(std::size_t size) {
    return size >= refusedFrom ||
           (isNewThread() && size >= refusedOnceFrom && !hasRefused.exchange(true));
}

void count(void* block, long change) {
    if (block != nullptr && ::malloc_usable_size(block) >= kolvan::test::kLargeAllocationBytes) {
        liveLargeBlocks += change;
    }
}

}  // namespace

// Replaces the library's global operators in this program. All forms without an alignment, because
// an address sanitizer's own ones would not match.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    void* block = isRefused(size) ? nullptr : std::malloc(size == 0 ? 1 : size);
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
    refusedFrom = kNever;
}

NoMemoryOnceOnANewThread::NoMemoryOnceOnANewThread(std::size_t bytes) {
    hasRefused = false;
    refusedOnceFrom = bytes;
}

NoMemoryOnceOnANewThread::~NoMemoryOnceOnANewThread() {
    refusedOnceFrom = kNever;
}

bool NoMemoryOnceOnANewThread::wasAsked() {
    return hasRefused;
}

long liveLargeAllocations() {
    return liveLargeBlocks;
}

}  // namespace kolvan::test
