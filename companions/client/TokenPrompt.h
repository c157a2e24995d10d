#pragma once

#include <string>

namespace kolvan::client {

/// Reads a line from standard input. On a terminal, asks for it with `question` on standard error
/// and does not show what is typed.
/// @throws Failure when there is none
std::string askSecretly(const std::string& question);

}  // namespace kolvan::client
