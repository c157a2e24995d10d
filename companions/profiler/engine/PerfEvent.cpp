#include "companions/profiler/engine/PerfEvent.h"

#include <cerrno>
#include <ctime>

#include <sys/syscall.h>
#include <unistd.h>

namespace kolvan::profiler {

perf_event_attr describeEvent(const EngineSettings& settings) {
    perf_event_attr event{};
    event.size = sizeof event;
    event.type = PERF_TYPE_SOFTWARE;
    // A clock of the kernel, and not a counter of the processor: its period is time, which is what
    // the profile tells, and it is the same on every machine; virtual ones have no counters.
    event.config = settings.waits ? PERF_COUNT_SW_CONTEXT_SWITCHES : PERF_COUNT_SW_TASK_CLOCK;
    event.sample_period = settings.waits ? 1 : 1'000'000'000ULL / settings.frequency;
    event.read_format = PERF_FORMAT_LOST;
    event.sample_type = kSampleType;
    event.sample_regs_user = kSampleRegisters;
    event.sample_stack_user = static_cast<std::uint32_t>(settings.stackBytes);
    event.exclude_callchain_user = 1;
    // Whoever waits does it in the kernel's scheduler, which is no news.
    event.exclude_callchain_kernel = settings.waits ? 1 : 0;
    event.exclude_hv = 1;
    event.inherit = 1;
    event.inherit_thread = settings.children ? 0 : 1;
    event.mmap = 1;
    event.mmap2 = 1;
    event.comm = 1;
    event.comm_exec = 1;
    event.task = 1;
    event.context_switch = 1;
    event.sample_id_all = 1;
    event.use_clockid = 1;
    event.clockid = CLOCK_MONOTONIC;
    return event;
}

void excludeKernel(perf_event_attr& description) {
    description.exclude_kernel = 1;
    description.exclude_callchain_kernel = 1;
}

perf_event_attr describeOwner(std::size_t watermark) {
    perf_event_attr event{};
    event.size = sizeof event;
    event.type = PERF_TYPE_SOFTWARE;
    event.config = PERF_COUNT_SW_DUMMY;
    event.exclude_kernel = 1;
    event.exclude_hv = 1;
    event.use_clockid = 1;  // events of one ring have one clock
    event.clockid = CLOCK_MONOTONIC;
    event.watermark = 1;
    event.wakeup_watermark = static_cast<std::uint32_t>(watermark);
    return event;
}

FileDescriptor openEvent(perf_event_attr& description, pid_t thread, int processor, int owner) {
    unsigned long flags = PERF_FLAG_FD_CLOEXEC;
    if (owner != kNoOwner) {
        flags |= PERF_FLAG_FD_OUTPUT | PERF_FLAG_FD_NO_GROUP;
    }
    const auto attempt = [&] {
        return FileDescriptor(static_cast<int>(
            ::syscall(SYS_perf_event_open, &description, thread, processor, owner, flags)));
    };
    FileDescriptor event = attempt();
    if (!event && errno == EINVAL && description.read_format != 0) {
        description.read_format = 0;  // as kernels before Linux 6.0 want it
        event = attempt();
    }
    return event;
}

EventCounts readCounts(const FileDescriptor& event) {
    EventCounts counts;
    const ssize_t size = ::read(event.get(), &counts, sizeof counts);
    return size < 0 ? EventCounts() : counts;  // it fails for an event in an error state only
}

}  // namespace kolvan::profiler
