#pragma once

#include "companions/client/Options.h"

namespace kolvan::client {

/// Carries out what the command line asks for.
/// @return exit code: 0, or 1 for a collection that has failed or was cancelled
/// @throws Failure, std::system_error
int carryOut(const Options& options);

}  // namespace kolvan::client
