#pragma once

#include "companions/server/profiles/CodeNames.h"
#include "companions/server/profiles/Profile.h"
#include "companions/server/profiles/ProfileEntries.h"
#include "companions/server/profiles/ProfileLimits.h"

namespace kolvan::server::profiles {

/// Puts a profile together. That waits for the last entry of the file: only then are the texts
/// known that all the others refer to.
/// @param entries of the whole file
/// @param names for code that it has none for
/// @throws UnreadableProfile, protozero::exception, and what `names` throw
Profile buildProfile(ProfileEntries entries, const ProfileLimits& limits, const CodeNames& names);

}  // namespace kolvan::server::profiles
