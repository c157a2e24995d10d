#pragma once

#include <chrono>
#include <cstdint>

namespace kolvan::profiler {

/// Nanoseconds of CLOCK_MONOTONIC, the clock of all events and records.
inline std::uint64_t monotonicNow() {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::chrono::steady_clock::now().time_since_epoch())  // CLOCK_MONOTONIC
            .count());
}

}  // namespace kolvan::profiler
