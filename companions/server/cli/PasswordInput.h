#pragma once

#include <string>

namespace kolvan::server {

/// Reads a new password for somebody: where standard input is a terminal, asks there twice without
/// showing what is typed; otherwise, or when `fromInput` says so, takes the first line of standard
/// input.
///
/// A signal in between ends the program as ever, with the terminal as it was before.
/// @throws std::runtime_error when it cannot be read, or the two differ
std::string readNewPassword(const std::string& who, bool fromInput);

}  // namespace kolvan::server
