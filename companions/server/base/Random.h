#pragma once

#include <cstddef>
#include <span>

namespace kolvan::server {

/// Fills `bytes` with random bytes of the system, good enough for secrets.
/// Threads: any. Blocks only on a machine that has just been switched on.
/// @throws std::system_error when the system has none
void fillWithRandomBytes(std::span<std::byte> bytes);

}  // namespace kolvan::server
