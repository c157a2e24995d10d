#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <linux/perf_event.h>

namespace kolvan::profiler {

/// The memory through which the kernel hands over the records of one processor, as
/// perf_event_open(2) describes it under "MMAP layout". We read while the kernel writes.
class PerfRing {
public:
    /// Maps the ring of an event.
    /// @param bytes size of its data: a power of two, one page at least
    /// @return null, with errno set, when the system refuses
    static std::unique_ptr<PerfRing> map(int event, std::size_t bytes);

    PerfRing(const PerfRing&) = delete;
    PerfRing& operator=(const PerfRing&) = delete;
    ~PerfRing();

    /// The oldest record that was not consumed yet, in one piece; valid until `consume` is called.
    /// @return null when there is none
    const perf_event_header* peek();

    /// Gives the room of the record that `peek` has shown back to the kernel.
    void consume();

private:
    PerfRing(void* area, std::size_t areaBytes, std::size_t dataBytes)
        : memory(area), mappedBytes(areaBytes), size(dataBytes) {}

    perf_event_mmap_page& control() const noexcept;
    const std::byte* data() const noexcept;
    void copyOut(std::uint64_t position, std::byte* to, std::size_t bytes) const noexcept;

    void* memory = nullptr;
    std::size_t mappedBytes = 0;
    std::size_t size = 0;
    std::uint64_t tail = 0;
    const perf_event_header* shown = nullptr;
    std::vector<std::byte> joined;  // a record that lies around the ring's end
};

}  // namespace kolvan::profiler
