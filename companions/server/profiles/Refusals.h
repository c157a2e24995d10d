#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kolvan::server::profiles {

/// The profile has more than `most` of something, named in the plural.
/// @throws UnreadableProfile
[[noreturn]] void refuseTooMany(std::uint64_t most, const std::string& what);

/// An entry of the profile refers to another one that is not there.
/// @param what the kind of the missing one, in the singular
/// @throws UnreadableProfile
[[noreturn]] void refuseDangling(const std::string& what);

/// To be called before one more is added to `count` of something, named in the plural.
/// @throws UnreadableProfile when there are `most` already
void bound(std::size_t count, std::size_t most, const char* what);

}  // namespace kolvan::server::profiles
