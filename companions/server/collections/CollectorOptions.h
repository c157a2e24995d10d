#pragma once

#include "companions/server/store/Records.h"

#include <optional>
#include <string>

namespace kolvan::server {

/// Writes a request as the option file of a collector: one option or value a line, and
/// no line end at the end: the agent would take it for an empty line. It puts a directory of its
/// own in place of the line after "-r".
/// @throws std::invalid_argument when the request has neither process nor command, or both, or an
///         argument that is no line of such a file: empty, with a line feed or NUL in it, or "-r"
std::string collectorOptions(const CollectionRequest& request);

/// The arguments with which a collector lists the processes of its machine as JSON.
inline constexpr const char* kListProcesses = "--list-processes";

/// How a collection has ended, by the exit status of its collector.
/// @param exitCode nothing: the agent could not run it to its end
CollectionState outcomeOf(std::optional<int> exitCode);

}  // namespace kolvan::server
