#pragma once

#include "companions/profiler/machine/ProcessList.h"

#include <string>
#include <vector>

namespace kolvan::profiler {

/// The list for programs: a JSON array with an object for each process, one a line. Members: "pid",
/// "user", "command", "cpu" (per cent of one processor), "threads", "profilable", "engine" ("perf",
/// "ptrace" or "none"), "reason" and "help" (empty where nothing is missing).
std::string processJson(const std::vector<ProcessEntry>& processes);

}  // namespace kolvan::profiler
