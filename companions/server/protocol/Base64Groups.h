#pragma once

#include <cstddef>
#include <string_view>

namespace kolvan::server::protocol {

/// Decodes whole groups of four letters of Base64, without padding, in the fastest way that this
/// processor has: up to the end, or to the first group that has anything else in it.
/// @param out room for three bytes for each group of `text`, of which those behind the decoded ones
///     are left with any content
/// @return how many characters were decoded, four for three bytes
std::size_t decodeGroups(std::string_view text, char* out) noexcept;

/// The same on any processor.
std::size_t decodeGroupsByTable(std::string_view text, char* out) noexcept;

/// The same on processors for which `canShuffle()` says so, several times as fast.
std::size_t decodeGroupsByShuffling(std::string_view text, char* out) noexcept;

/// Whether the processor has SSSE3, as all of this family have had since 2011.
bool canShuffle() noexcept;

/// The six bits of a letter of the standard alphabet (RFC 4648, section 4).
/// @return 64 or more for any other character
unsigned sixBitsOf(char letter) noexcept;

}  // namespace kolvan::server::protocol
