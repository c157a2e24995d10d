#pragma once

#include "companions/profiler/base/FileDescriptor.h"

#include <chrono>
#include <cstdint>

namespace kolvan::profiler {

/// The clock that the timers run on: CLOCK_MONOTONIC.
using Clock = std::chrono::steady_clock;

/// A timer that first expires at `first`, then every `period` (never again when that is 0). Its
/// deadlines are absolute, so that late wake-ups do not add up.
/// @return a descriptor to poll, which never blocks
/// @throws Failure
FileDescriptor startTimer(Clock::time_point first, std::chrono::nanoseconds period);

/// Number of times the timer has expired since the last call; 0 where there is no timer.
std::uint64_t expirations(const FileDescriptor& timer);

/// Blocks SIGINT, SIGTERM, SIGHUP and SIGCHLD for the calling thread, and makes them something to
/// poll.
/// @return a descriptor as of signalfd(2), which never blocks
/// @throws Failure
FileDescriptor receiveSignals();

}  // namespace kolvan::profiler
