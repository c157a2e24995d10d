#pragma once

#include <string>

/// How the server's own files are named.
namespace kolvan::server {

/// An id as the name of a file or directory.
/// @throws std::invalid_argument unless it consists of letters, digits and "-", as all ids that
///         this server makes
const std::string& nameForPath(const std::string& id);

}  // namespace kolvan::server
