#pragma once

#include "companions/profiler/output/Profile.h"

#include <string>

namespace kolvan::profiler {

/// Writes a profile as the gzip of a "profile.proto" message, which the tools for pprof's files
/// read. The same profile makes the same bytes. What the coverage leaves out stands in comments.
///
/// Each sample has two values, a count and nanoseconds, and the labels "thread" and "process"
/// (names), "tid", "pid" and "time" (its tenth of a second since the beginning, in milliseconds).
///
/// Addresses without a name keep module and address, so that another tool can name them, and have
/// until then a function like "[libx.so+0x...]".
///
/// @throws Failure with `ExitCode::NotWritten`; there is no file then
void writePprof(const Profile& profile, const Coverage& coverage, const std::string& path);

}  // namespace kolvan::profiler
