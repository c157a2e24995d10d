#pragma once

#include "companions/server/cli/Options.h"

namespace kolvan::server {

/// Serves until a signal ends it, see `Lifetime`. To be called while the process has one thread.
///
/// Listens on the sockets that a service manager or a predecessor has handed over, otherwise where
/// the options say. Says on standard output where it serves and how to begin, and writes its log to
/// standard error.
/// @param argc, argv as `main` was given them, to start a successor by them
/// @throws StoreError, std::invalid_argument, std::runtime_error and std::system_error with a
/// sentence for the user, when it cannot serve
void serve(const Options& options, int argc, const char* const* argv);

}  // namespace kolvan::server
