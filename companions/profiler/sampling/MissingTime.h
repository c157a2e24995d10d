#pragma once

#include "companions/profiler/engine/Engine.h"
#include "companions/profiler/output/Profile.h"

#include <optional>
#include <string>

namespace kolvan::profiler {

/// Says why much of the processor time has no samples, so that nobody takes a profile for whole
/// that is not.
/// @param coverage what was sampled, lost and accounted
/// @param report of the engine that has sampled it
/// @return nothing where little is missing, or where the samples that were lost explain it
std::optional<std::string> explainMissingTime(const Coverage& coverage, const EngineReport& report);

}  // namespace kolvan::profiler
