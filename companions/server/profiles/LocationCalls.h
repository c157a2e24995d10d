#pragma once

#include "companions/server/profiles/CodeNames.h"
#include "companions/server/profiles/Profile.h"
#include "companions/server/profiles/ProfileEntries.h"

#include <cstdint>
#include <vector>

namespace kolvan::server::profiles {

/// Which functions are called at each location: several where some were inlined.
struct LocationCalls {
    std::vector<Profile::Function> functions;  ///< in the order of name and module, each once
    std::vector<std::uint32_t> begins;         ///< of each location, in `calls`; then their end
    /// Positions in `functions`, the innermost of a location first; then that of "[no stack]".
    std::vector<std::uint32_t> calls;
};

/// Finds the functions of all locations, and names what the file has no name for.
/// @param entries all of the file's; texts are added to them
/// @throws UnreadableProfile, and what `names` throw
LocationCalls findLocationCalls(ProfileEntries& entries, const CodeNames& names);

}  // namespace kolvan::server::profiles
