#pragma once

#include "companions/server/profiles/Profile.h"
#include "companions/server/profiles/ProfileEntries.h"

#include <cstddef>

namespace kolvan::server::profiles {

/// Reads from the labels of samples when and in which threads they were taken.
/// @param profile gets its threads and moments; a moment for each set of labels
/// @throws UnreadableProfile; protozero::exception where the labels are no messages
void readMoments(ProfileEntries& entries, std::size_t mostThreads, Profile& profile);

}  // namespace kolvan::server::profiles
