#pragma once

#include "companions/check/Finding.h"

namespace kolvan::check {

/// Tells which limits of this process (ulimit) would be too low for the agent.
Findings examineLimits();

}  // namespace kolvan::check
