#pragma once

#include <string>
#include <vector>

namespace cagnt1::operations {

/// Runs a program through the shell and blocks until it has ended.
///
/// The program's path is quoted for the shell, so it may contain any character. The arguments are
/// joined with single blanks and are not quoted: the shell interprets them. The command inherits
/// the environment, the working directory and standard error; its standard input is the null
/// device.
/// @return its whole standard output, unchanged; its exit status is ignored. If the command leaves
///         a process behind that writes on, what this writes in the second after the command's
///         end is included and everything later is not
/// @throws std::runtime_error "Failed to pipe output of " and the program, when no pipe can be
///         opened or the shell cannot be started
std::string runCommand(const std::string& program, const std::vector<std::string>& args);

}  // namespace cagnt1::operations
