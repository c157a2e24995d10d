#pragma once

namespace kolvan::profiler {

/// Tries to trace a child of ours, which is begun for it and ended again.
/// @return 0, or the number of the error
int tryTracing();

}  // namespace kolvan::profiler
