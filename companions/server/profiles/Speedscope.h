#pragma once

#include "companions/server/profiles/Filter.h"
#include "companions/server/profiles/Output.h"
#include "companions/server/profiles/Profile.h"

#include <string_view>

namespace kolvan::server::profiles {

/// Writes the file format of speedscope: a sampled profile for each thread, its samples in the
/// order of their times.
/// @param name of the whole; shown by speedscope
/// @throws BadFilter, ViewTooLarge, and what the sink throws
void writeSpeedscope(const Profile& profile, const Filter& filter, std::string_view name,
                     const Sink& sink);

}  // namespace kolvan::server::profiles
