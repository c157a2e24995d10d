#pragma once

#include "companions/profiler/output/ProfileSummary.h"

#include <string>

namespace kolvan::profiler {

/// A profile as lines of text for people: the hottest functions, the hottest paths, and how far
/// both can be trusted. A profile without samples is one line that says why. Nothing in the text
/// can control a terminal.
std::string profileTable(const ProfileSummary& profile);

}  // namespace kolvan::profiler
