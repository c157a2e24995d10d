#pragma once

#include "companions/server/profiles/Filter.h"
#include "companions/server/profiles/Profile.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kolvan::server::profiles {

/// Position of the type that a filter asks for.
/// @throws BadFilter when the profile does not have it
std::size_t typeOf(const Profile& profile, const Filter& filter);

/// For each moment of the profile, whether the filter lets its samples through.
std::vector<bool> admittedMoments(const Profile& profile, const Filter& filter);

/// What the nodes of a call tree stand for, in the order of the nodes.
struct Weights {
    std::vector<std::uint64_t> self;   ///< of the samples that ended there
    std::vector<std::uint64_t> total;  ///< also of those that ended further down
};

/// Adds up the samples that the filter lets through.
/// @throws BadFilter
Weights weigh(const Profile& profile, const Filter& filter);

/// Totals from what ended at each node.
std::vector<std::uint64_t> totalsOf(const CallTree& tree, std::vector<std::uint64_t> self);

/// The same per function. `total` counts a stack once for a function, however often it recurs in
/// it.
Weights weighFunctions(const CallTree& tree, const Weights& nodes, std::size_t functions);

}  // namespace kolvan::server::profiles
