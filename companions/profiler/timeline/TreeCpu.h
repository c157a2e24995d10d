#pragma once

#include <cstdint>
#include <set>
#include <string_view>

#include <sys/types.h>

namespace kolvan::profiler {

/// Finds the CPU time of the children that a process has waited for, in the kernel's clock ticks,
/// in the text of the process's "stat" file; 0 in anything else.
std::uint64_t waitedChildrenTicks(std::string_view text);

/// Adds up the CPU time of a process and of all that it starts, ended or not. Used from one thread.
class TreeCpu {
public:
    explicit TreeCpu(pid_t rootProcess);

    /// Looks for processes that have begun. Reads a file for each thread, so that it is not to be
    /// called more often than necessary; what begins and ends in between counts as soon as its
    /// parent has waited for it.
    void lookForChildren();

    /// CPU time so far, in nanoseconds; never less than before.
    std::uint64_t nanoseconds();

private:
    std::set<pid_t> processes;
    std::uint64_t most = 0;
};

}  // namespace kolvan::profiler
