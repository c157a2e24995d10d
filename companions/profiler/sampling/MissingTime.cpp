#include "companions/profiler/sampling/MissingTime.h"

#include <algorithm>
#include <cstdint>

namespace kolvan::profiler {

namespace {

/// With fewer periods than these, a part of one is a large share.
constexpr std::uint64_t kManyPeriods = 100;

}  // namespace

std::optional<std::string> explainMissingTime(const Coverage& coverage,
                                              const EngineReport& report) {
    const std::uint64_t accounted = coverage.accountedNanoseconds;
    const std::uint64_t missing = accounted - std::min(coverage.sampledNanoseconds, accounted);
    if (coverage.lost > 0 || missing <= accounted / 10 ||
        accounted <= kManyPeriods * report.period) {
        return std::nullopt;
    }
    // Each thread that begins can hide one period at most.
    const bool isOfShortThreads = report.threadsBegun * report.period > missing / 2;
    if (!report.hasTimers) {
        return isOfShortThreads
                   ? std::optional("Many threads ended between two looks and have no samples.")
                   : std::nullopt;
    }
    return isOfShortThreads
               ? "Many threads ran for less than the time between two samples and have none; a "
                 "higher --frequency sees more of them."
               : "Some processor time has no samples: in a virtual machine no timer expires while "
                 "it waits for a processor.";
}

}  // namespace kolvan::profiler
