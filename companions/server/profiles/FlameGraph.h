#pragma once

#include "companions/server/profiles/Filter.h"
#include "companions/server/profiles/Output.h"
#include "companions/server/profiles/Profile.h"

namespace kolvan::server::profiles {

/// Writes all stacks, laid over each other from their roots on, as JSON:
///
///     {"sampleType": "cpu", "unit": "nanoseconds", "total": 980,
///      "functions": [{"name": "main", "module": "/opt/app/app"}, ...],
///      "nodes": {"parent": [0, 0, 1], "function": [-1, 0, 1], "self": [0, 80, 900],
///                "total": [980, 980, 900]}}
///
/// The nodes stand in columns. The first is the top, its own parent, without a function; a parent
/// stands before its children, these in the order of their functions' names. Stacks can be some
/// thousand calls deep, and many readers of JSON give up on objects nested like that. Ways that the
/// filter leaves nothing of, and functions that only stand on those, are left out.
///
/// @throws BadFilter, ViewTooLarge, and what the sink throws
void writeFlameGraph(const Profile& profile, const Filter& filter, const Sink& sink);

}  // namespace kolvan::server::profiles
