#pragma once

#include "companions/profiler/output/CpuSeries.h"

#include <cstddef>
#include <cstdint>

namespace kolvan::profiler {

/// The figures of a collection so far. CPU use is in percent of one processor.
struct Figures {
    std::uint64_t samples = 0;
    double cpuNow = 0;  ///< when it was last taken
    /// It took long enough for an average and a maximum; both are 0 otherwise.
    bool cpuMeasured = false;
    double cpuAverage = 0;  ///< over the whole time
    double cpuMost = 0;
    CpuSeries cpu;                   ///< all values of `cpuNow`
    std::uint64_t residentNow = 0;   ///< KiB
    std::uint64_t residentMost = 0;  ///< KiB
    std::size_t threadsNow = 0;
    std::size_t threadsMost = 0;
};

}  // namespace kolvan::profiler
