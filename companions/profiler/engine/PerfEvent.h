#pragma once

#include "companions/profiler/base/FileDescriptor.h"
#include "companions/profiler/engine/Engine.h"

#include <cstddef>
#include <cstdint>

#include <linux/perf_event.h>
#include <sys/types.h>

namespace kolvan::profiler {

/// What all records of our events have, and in which order: perf_event_open(2) under `sample_type`.
inline constexpr std::uint64_t kSampleType = PERF_SAMPLE_IP | PERF_SAMPLE_TID | PERF_SAMPLE_TIME |
                                             PERF_SAMPLE_CALLCHAIN | PERF_SAMPLE_REGS_USER |
                                             PERF_SAMPLE_STACK_USER;

/// The registers that a sample brings, by the kernel's numbers (asm/perf_regs.h), which are also
/// their order in it: ax bx cx dx si di bp sp ip, and r8 to r15.
inline constexpr std::uint64_t kSampleRegisters = 0x1FF | (std::uint64_t{0xFF} << 16U);

/// What reading an event gives: what it has counted, and how many of its records found no room.
/// Kernels before Linux 6.0 do not know the second number.
struct EventCounts {
    std::uint64_t count = 0;
    std::uint64_t lost = 0;
};

/// Reads an event, together with those that threads have inherited of it.
EventCounts readCounts(const FileDescriptor& event);

/// The description of the event that watches one thread on one processor, in the kernel too.
perf_event_attr describeEvent(const EngineSettings& settings);

/// Leaves the kernel's own work out, which the user may not be allowed to look at.
void excludeKernel(perf_event_attr& description);

/// The description of an event that sees nothing, and whose ring others write to.
/// @param watermark bytes in the ring that wake whoever polls
perf_event_attr describeOwner(std::size_t watermark);

inline constexpr pid_t kThisThread = 0;
inline constexpr int kNoOwner = -1;

/// perf_event_open(2): an event of `thread` on `processor`.
/// @param description without the count of losses afterwards, where the kernel does not know it
/// @param owner the event whose ring it writes to, from its beginning
/// @return none, with errno set, when the system refuses
FileDescriptor openEvent(perf_event_attr& description, pid_t thread, int processor,
                         int owner = kNoOwner);

}  // namespace kolvan::profiler
