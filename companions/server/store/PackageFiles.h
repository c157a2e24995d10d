#pragma once

#include "companions/server/store/Store.h"

#include <filesystem>
#include <string>

namespace kolvan::server {

/// Where the file of a package is. Its name is its content's hash, so that a package which takes
/// the place of another one of the same name is never a mixture of the two.
std::filesystem::path fileOf(const Package& package, const std::filesystem::path& directory);

/// Copies an archive into the packages' directory and records it under its file name, in place of
/// what has that name or that architecture. Whoever reads the file of the old one reads on.
/// @throws StoreError, and std::invalid_argument when the name is one that agents cannot ask for:
/// other than
///         letters, digits, ".", "-" and "_", or with a dot in front
/// @throws std::runtime_error when the archive cannot be read or copied
Package addPackage(PackageStore& store, const std::filesystem::path& directory,
                   PackageArchitecture architecture, const std::filesystem::path& archive);

}  // namespace kolvan::server
