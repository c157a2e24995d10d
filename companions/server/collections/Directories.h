#pragma once

#include <filesystem>
#include <string>
#include <string_view>

/// How the server's own files are made and named.
namespace kolvan::server {

/// Writes all bytes to a descriptor.
/// @param path how the error names it
/// @throws std::system_error when the file takes only a part of them
void writeAll(int descriptor, std::string_view bytes, const std::filesystem::path& path);

/// An id as the name of a file or directory.
/// @throws std::invalid_argument unless it consists of letters, digits and "-", as all ids that
///         this server makes
const std::string& nameForPath(const std::string& id);

}  // namespace kolvan::server
