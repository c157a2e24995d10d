#pragma once

#include "companions/profiler/Options.h"
#include "companions/profiler/base/ExitCode.h"
#include "companions/profiler/control/Feedback.h"

namespace kolvan::profiler {

/// Runs a whole collection: finds or starts the target, measures it until the duration is over, the
/// target ends, a command or a signal ends it, writes the results and prints the summary.
///
/// Blocks the signals it listens to (SIGINT, SIGTERM, SIGHUP, SIGCHLD) for the calling thread,
/// which is the only one of the process. A command it started is gone when it returns or throws.
/// @throws Failure
ExitCode runCollection(const Options& options, Feedback& feedback);

}  // namespace kolvan::profiler
