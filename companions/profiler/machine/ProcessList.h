#pragma once

#include "companions/profiler/machine/Access.h"

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kolvan::profiler {

/// A process of this machine. Texts are what the process and the system say, any bytes.
struct ProcessEntry {
    pid_t pid = 0;
    std::string user;
    std::string command;  ///< with its arguments; its name where it has none
    double cpu = 0;       ///< per cent of one processor
    std::size_t threads = 0;
    Access access;
};

/// The processes of this machine, first those that can be profiled, and of these the busiest;
/// without the kernel's own threads, those that have ended, and this one.
/// @param window time over which processor use is measured; the call takes as long
std::vector<ProcessEntry> listProcesses(std::chrono::milliseconds window);

}  // namespace kolvan::profiler
