#pragma once

#include "companions/server/profiles/Filter.h"
#include "companions/server/profiles/Output.h"
#include "companions/server/profiles/Profile.h"

namespace kolvan::server::profiles {

/// Writes each stack as a line: its functions from the root on with semicolons between, a blank,
/// and what the samples with this stack stand for together:
///
///     _start;main;hash 700
///
/// A semicolon in a name becomes a colon and a control character a '?', so that every line is a
/// stack.
///
/// @throws BadFilter, ViewTooLarge, and what the sink throws
void writeCollapsed(const Profile& profile, const Filter& filter, const Sink& sink);

}  // namespace kolvan::server::profiles
