#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace kolvan::server {

/// A moment, in milliseconds since 1970-01-01 00:00 UTC.
using UtcTime = std::chrono::sys_time<std::chrono::milliseconds>;

/// Writes a moment as RFC 3339 wants it: 2026-03-01T12:34:56.789Z.
/// @pre the year has four digits
std::string toRfc3339(UtcTime time);

/// Reads a moment as RFC 3339 has it, in any zone; what is finer than a millisecond is cut off.
/// @return nothing when the text is no such moment
std::optional<UtcTime> fromRfc3339(std::string_view text);

}  // namespace kolvan::server
