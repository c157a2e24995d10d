#pragma once

#include "companions/profiler/base/Registers.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include <sys/types.h>

namespace kolvan::profiler {

/// Copies what there is of a stack from `address` upwards, as much as `room` has space for.
/// @return number of bytes; 0 where this user may not read the process's memory
std::size_t readStack(pid_t process, std::uint64_t address, std::vector<std::byte>& room);

/// Where a thread is that sleeps in a system call, without disturbing it: procfs tells its stack
/// pointer and instruction. The other registers are 0.
/// @return nothing for a thread that runs, or that this user may not look at
std::optional<Registers> registersOfSleeping(pid_t process, pid_t thread);

/// Where a thread is that this one traces and that is stopped.
/// @return nothing when it has been killed meanwhile, or runs 32-bit code, whose stacks cannot be
///         unwound here
std::optional<Registers> registersOfStopped(pid_t thread);

}  // namespace kolvan::profiler
