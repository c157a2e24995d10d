#include "basekit2/pool_allocator.h"

namespace basekit2 {

void* pool_allocator_t::allocate(std::size_t size) {
    const std::lock_guard lock(poolMutex);
    return pool.allocate(size);
}

void pool_allocator_t::deallocate(void* block, std::size_t size) noexcept {
    const std::lock_guard lock(poolMutex);
    pool.deallocate(block, size);
}

pool_allocator_t& get_pool_allocator() {
    static auto& allocator = *new pool_allocator_t;
    return allocator;
}

}  // namespace basekit2
