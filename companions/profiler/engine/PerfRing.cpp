#include "companions/profiler/engine/PerfRing.h"

#include <algorithm>
#include <cstring>

#include <sys/mman.h>
#include <unistd.h>

namespace kolvan::profiler {

std::unique_ptr<PerfRing> PerfRing::map(int event, std::size_t bytes) {
    const std::size_t all = bytes + static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    void* const area = ::mmap(nullptr, all, PROT_READ | PROT_WRITE, MAP_SHARED, event, 0);
    if (area == MAP_FAILED) {
        return nullptr;
    }
    return std::unique_ptr<PerfRing>(new PerfRing(area, all, bytes));
}

PerfRing::~PerfRing() {
    (void)::munmap(memory, mappedBytes);  // fails for addresses that are no mapping only
}

perf_event_mmap_page& PerfRing::control() const noexcept {
    return *static_cast<perf_event_mmap_page*>(memory);
}

const std::byte* PerfRing::data() const noexcept {
    return static_cast<const std::byte*>(memory) + (mappedBytes - size);
}

void PerfRing::copyOut(std::uint64_t position, std::byte* to, std::size_t bytes) const noexcept {
    const std::size_t begin = position & (size - 1);
    const std::size_t first = std::min(bytes, size - begin);
    std::memcpy(to, data() + begin, first);
    std::memcpy(to + first, data(), bytes - first);
}

const perf_event_header* PerfRing::peek() {
    if (shown != nullptr) {
        return shown;
    }
    // The kernel publishes a record by moving the head behind it; the pair of its barrier.
    const std::uint64_t head = __atomic_load_n(&control().data_head, __ATOMIC_ACQUIRE);
    if (head == tail) {
        return nullptr;
    }
    perf_event_header header{};
    static_assert(sizeof header == 8, "records are aligned to 8 bytes, so a header is never cut");
    copyOut(tail, reinterpret_cast<std::byte*>(&header), sizeof header);
    const std::size_t begin = tail & (size - 1);
    const std::byte* record = data() + begin;
    if (begin + header.size > size) {
        joined.resize(header.size);
        copyOut(tail, joined.data(), header.size);
        record = joined.data();
    }
    shown = reinterpret_cast<const perf_event_header*>(record);
    return shown;
}

void PerfRing::consume() {
    tail += shown->size;
    shown = nullptr;
    __atomic_store_n(&control().data_tail, tail, __ATOMIC_RELEASE);
}

}  // namespace kolvan::profiler
