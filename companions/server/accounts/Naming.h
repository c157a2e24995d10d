#pragma once

#include <string_view>

namespace kolvan::server {

/// Refuses what is no name of a user: other than 1 to 64 letters, digits, ".", "-", "_" and "@".
/// Such names look like what they are, in lists and in addresses.
/// @throws std::invalid_argument with a sentence for whoever chose it
void checkUserName(std::string_view name);

/// Refuses what is no name of a token: an empty one, one of more than 100 bytes, one with control
/// characters.
/// @throws std::invalid_argument with a sentence for whoever chose it
void checkTokenName(std::string_view name);

}  // namespace kolvan::server
