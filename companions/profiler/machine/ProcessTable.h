#pragma once

#include "companions/profiler/machine/ProcessList.h"

#include <cstddef>
#include <string>
#include <vector>

namespace kolvan::profiler {

/// The list for people, on a terminal of so many columns: a line for each process, and below it
/// what is missing, said once. Nothing in the text can control a terminal.
std::string processTable(const std::vector<ProcessEntry>& processes, std::size_t width);

}  // namespace kolvan::profiler
