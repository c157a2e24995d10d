#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kolvan::client {

/// Returns `text`, which is UTF-8, as a terminal may show it. Names of functions, threads, commands
/// and hosts are whatever somebody's machine says: each control character, and each that changes
/// the direction of writing, becomes a '?'.
std::string printable(std::string_view text);

/// Number of characters of a text in UTF-8.
std::size_t width(std::string_view text);

}  // namespace kolvan::client
