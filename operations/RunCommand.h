#pragma once

#include <string>
#include <vector>

namespace cagnt1::operations {

/// Runs a program through the shell and blocks until it has ended.
///
/// The program's path is quoted for the shell, so that any path will do; the arguments are joined
/// with single blanks as they are and read by the shell. The command inherits the environment,
/// the working directory and standard error; its standard input is the null device.
/// @return its whole standard output, unchanged; its exit status is ignored. Of what a program that
///         it leaves behind writes later, nothing after a second counts
/// @throws std::runtime_error "Failed to pipe output of " and the program, when there is no pipe
///         to be had or the shell could not be started
std::string runCommand(const std::string& program, const std::vector<std::string>& args);

}  // namespace cagnt1::operations
