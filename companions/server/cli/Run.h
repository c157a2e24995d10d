#pragma once

#include "companions/server/cli/Options.h"

#include <ostream>

namespace kolvan::server {

/// Carries a command out that works on the data directory. Secrets that it makes are a line of
/// `out`, alone, so that a script can take them; what to know about them goes to `notes`.
/// @pre the command is not `Serve` or `ShowText`
/// @throws StoreError, std::invalid_argument and std::runtime_error, each with a sentence for the
/// user
void runCommand(const Options& options, std::ostream& out, std::ostream& notes);

}  // namespace kolvan::server
