#pragma once

#include "companions/check/Environment.h"
#include "companions/check/Finding.h"

namespace kolvan::check {

/// Tells whether collections find a directory for their results, which is looked for in the
/// environment of this process by the function that the agent uses. It is tried by writing a small
/// file, which is removed.
/// @param environment the same variables, to name the one that chose the directory
Findings examineTemporaryDirectory(const Environment& environment);

}  // namespace kolvan::check
