#pragma once

#include "companions/check/Finding.h"

namespace kolvan::check {

/// Tells whether libarchive, which the agent loads when it installs a package, can be loaded. It is
/// searched for as the agent does that has been installed together with this program.
Findings examineLibraries();

}  // namespace kolvan::check
