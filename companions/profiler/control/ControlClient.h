#pragma once

#include "companions/profiler/base/ExitCode.h"

#include <string>

namespace kolvan::profiler {

/// Sends `command` to the collection that runs in `resultDirectory` and waits for its answer.
///
/// A collection that is just starting may not listen yet, so the search goes on for two seconds;
/// an answer is awaited for at most 30.
/// @return the answer
/// @throws Failure with `ExitCode::NoCollection` when no collection is found, with
///         `ExitCode::Failed` when it does not answer or refuses the command
std::string sendControlCommand(const std::string& resultDirectory, const std::string& command);

}  // namespace kolvan::profiler
