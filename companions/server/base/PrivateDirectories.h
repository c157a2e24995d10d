#pragma once

#include <filesystem>

namespace kolvan::server {

/// Makes a directory, and those above it that are missing, for this user alone: narrow from the
/// beginning, and not after a moment in which others could look in. What is there stays as it is.
/// @throws std::system_error when one of them cannot be made
void makePrivateDirectories(const std::filesystem::path& directory);

}  // namespace kolvan::server
