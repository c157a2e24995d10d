#pragma once

#include <string_view>

namespace cagnt1 {

/// Writes the Base64 text of whole groups of three bytes, in the fastest way that this processor
/// has.
/// @param bytes a multiple of three of them
/// @param out room for four characters for each group
/// @return the end of what was written
char* encodeGroups(std::string_view bytes, char* out) noexcept;

/// The same on any processor.
char* encodeGroupsByTable(std::string_view bytes, char* out) noexcept;

/// The same on processors for which `canShuffle()` says so, three times as fast.
char* encodeGroupsByShuffling(std::string_view bytes, char* out) noexcept;

/// Whether the processor has SSSE3, as all of this family have had since 2011.
bool canShuffle() noexcept;

}  // namespace cagnt1
