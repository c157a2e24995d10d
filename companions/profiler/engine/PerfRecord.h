#pragma once

#include "companions/profiler/engine/EventSink.h"

#include <cstdint>

#include <linux/perf_event.h>

namespace kolvan::profiler {

/// When a record of our events was written, nanoseconds of CLOCK_MONOTONIC.
std::uint64_t timeOf(const perf_event_header& record);

/// Number of samples and records that a record says were lost before it; mostly 0.
std::uint64_t lossOf(const perf_event_header& record);

/// Hands a record to `sink`, as the event that it tells of; records that tell of nothing that a
/// sink knows are passed over.
/// @param period nanoseconds that a sample stands for
void deliverRecord(const perf_event_header& record, std::uint64_t period, EventSink& sink);

/// The process that a record is about.
pid_t processOf(const perf_event_header& record);

/// The thread that begins, by a record of a start.
pid_t startedThreadOf(const perf_event_header& record);

}  // namespace kolvan::profiler
