#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kolvan::server::protocol {

/// Longest path and longest part of one between slashes, in bytes, and most of these parts.
inline constexpr std::size_t kLongestPath = 1024;
inline constexpr std::size_t kLongestPart = 200;
inline constexpr std::size_t kMostParts = 16;

/// Joins a directory and a file name that somebody has sent to a path that can be trusted to stay
/// below where it is put: relative, its parts separated by one slash each, none of them "." or
/// "..", without backslashes, control characters and hidden names. Slashes at the directory's ends,
/// several in a row, and parts "." are left out.
/// @return nothing when they are not of that kind, or too long; `fileName` has to be one part
std::optional<std::string> safeUploadPath(std::string_view directory, std::string_view fileName);

}  // namespace kolvan::server::protocol
