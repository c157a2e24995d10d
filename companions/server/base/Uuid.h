#pragma once

#include <string>

namespace kolvan::server {

/// Makes a random UUID (version 4) in lower case, 36 characters.
/// Threads: any.
/// @throws std::system_error when the system has no random bytes
std::string newUuid();

}  // namespace kolvan::server
