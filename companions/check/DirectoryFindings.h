#pragma once

#include "companions/check/Finding.h"

#include <string>

namespace kolvan::check {

/// Tells whether the agent in `directory` can install its target package, as this user.
Findings examineDirectory(const std::string& directory);

/// Tells who else can read or change the configuration.
Findings examineMode(const std::string& configurationFile);

}  // namespace kolvan::check
