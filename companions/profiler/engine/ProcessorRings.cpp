#include "companions/profiler/engine/ProcessorRings.h"

#include "companions/profiler/base/ErrorText.h"
#include "companions/profiler/base/ExitCode.h"
#include "companions/profiler/engine/PerfEvent.h"
#include "companions/profiler/engine/SamplingRights.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <utility>

#include <unistd.h>

namespace kolvan::profiler {

namespace {

/// All rings together; a sample with its stack takes up to 61 KiB.
constexpr std::size_t kBudget = std::size_t{32} * 1024 * 1024;
constexpr std::size_t kLargest = std::size_t{8} * 1024 * 1024;
constexpr std::size_t kSmallest = std::size_t{128} * 1024;
constexpr std::size_t kEnough = std::size_t{1024} * 1024;
/// We are woken when a ring is full to a quarter: on a busy machine we may come late.
constexpr std::size_t kPartThatWakes = 4;

/// An event on each processor that is switched on, with room for a ring of this size.
std::vector<ProcessorRing> openOwners(std::size_t processors, std::size_t ringBytes) {
    std::vector<ProcessorRing> opened;
    perf_event_attr description = describeOwner(ringBytes / kPartThatWakes);
    for (int number = 0; number < static_cast<int>(processors); ++number) {
        FileDescriptor owner = openEvent(description, kThisThread, number);
        if (owner) {
            opened.push_back({number, std::move(owner), nullptr});
        } else if (errno != ENODEV && errno != ENXIO) {
            throw Failure(ExitCode::Failed, refusalOfSampling(errno));
        }
    }
    return opened;
}

bool mapAll(std::vector<ProcessorRing>& rings, std::size_t bytes) {
    return std::all_of(rings.begin(), rings.end(), [&](ProcessorRing& processor) {
        processor.ring = PerfRing::map(processor.owner.get(), bytes);
        return processor.ring != nullptr;
    });
}

}  // namespace

ProcessorRings openProcessorRings() {
    const auto processors = static_cast<std::size_t>(std::max(1L, ::sysconf(_SC_NPROCESSORS_CONF)));
    const std::size_t wanted =
        std::clamp(std::bit_floor(kBudget / processors), kSmallest, kLargest);
    int error = 0;
    // One large ring could take what the last ones need, so that all are opened anew.
    for (std::size_t bytes = wanted; bytes >= kSmallest; bytes /= 2) {
        std::vector<ProcessorRing> rings = openOwners(processors, bytes);
        if (mapAll(rings, bytes)) {
            return {std::move(rings), bytes, std::min(wanted, kEnough)};
        }
        error = errno;
    }
    throw Failure(ExitCode::Failed,
                  "no memory that the kernel can write samples to (ulimit -l, "
                  "kernel.perf_event_mlock_kb): " +
                      errorText(error));
}

rlim_t descriptorsForEvents(rlim_t descriptors) noexcept {
    constexpr rlim_t kForFiles = 64;
    return descriptors - std::min(kForFiles, descriptors / 2);
}

}  // namespace kolvan::profiler
