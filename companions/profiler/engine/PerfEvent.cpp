#include "companions/profiler/engine/PerfEvent.h"

#include <ctime>

#include <sys/syscall.h>
#include <unistd.h>

namespace kolvan::profiler {

perf_event_attr describeEvent(const EngineSettings& settings, bool kernel) {
    perf_event_attr event{};
    event.size = sizeof event;
    event.type = PERF_TYPE_SOFTWARE;
    // A clock of the kernel, and not a counter of the processor: its period is time, which is what
    // the profile tells, and it is the same on every machine; virtual ones have no counters.
    event.config = settings.waits ? PERF_COUNT_SW_CONTEXT_SWITCHES : PERF_COUNT_SW_TASK_CLOCK;
    event.sample_period = settings.waits ? 1 : 1'000'000'000ULL / settings.frequency;
    event.sample_type = kSampleType;
    event.sample_regs_user = kSampleRegisters;
    event.sample_stack_user = static_cast<std::uint32_t>(settings.stackBytes);
    event.exclude_callchain_user = 1;
    event.exclude_callchain_kernel = kernel && !settings.waits ? 0 : 1;
    event.exclude_kernel = kernel ? 0 : 1;
    event.exclude_hv = 1;
    event.inherit = 1;
    // Without `children` a new process is followed up to its first record, and dropped by the
    // engine: the kernel tells threads and processes apart since 5.13 only.
    event.mmap = 1;
    event.mmap2 = 1;
    event.comm = 1;
    event.comm_exec = 1;
    event.task = 1;
    event.context_switch = 1;
    event.sample_id_all = 1;
    event.use_clockid = 1;
    event.clockid = CLOCK_MONOTONIC;
    event.watermark = 1;
    return event;
}

FileDescriptor openEvent(perf_event_attr& description, pid_t thread, int processor) {
    constexpr unsigned long kFlags = PERF_FLAG_FD_CLOEXEC;
    constexpr int kNoGroup = -1;
    return FileDescriptor(static_cast<int>(
        ::syscall(SYS_perf_event_open, &description, thread, processor, kNoGroup, kFlags)));
}

}  // namespace kolvan::profiler
