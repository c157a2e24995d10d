#pragma once

#include <chrono>
#include <string>

namespace kolvan::server {

/// A moment, in milliseconds since 1970-01-01 00:00 UTC.
using UtcTime = std::chrono::sys_time<std::chrono::milliseconds>;

/// Writes a moment as RFC 3339 wants it: 2026-03-01T12:34:56.789Z.
/// @pre the year has four digits
std::string toRfc3339(UtcTime time);

}  // namespace kolvan::server
