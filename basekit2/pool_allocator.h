#pragma once

#include <cstddef>
#include <memory_resource>
#include <mutex>

namespace basekit2 {

/// Memory for counted objects: freed blocks are kept by their size and used again.
///
/// Threads: any member from any thread.
class pool_allocator_t {
public:
    /// @return a block of `size` bytes, aligned for every type of ordinary alignment
    /// @throws std::bad_alloc when there is no memory
    void* allocate(std::size_t size);

    /// Takes back a block that `allocate` gave for the same `size`.
    void deallocate(void* block, std::size_t size) noexcept;

private:
    std::mutex poolMutex;  // guards the pool; no other lock is taken under it
    std::pmr::unsynchronized_pool_resource pool;
};

/// The one pool of the process. It is never destroyed, because an object may be released by the
/// destructor of a static object or by a thread that is still running at exit.
pool_allocator_t& get_pool_allocator();

}  // namespace basekit2
