#pragma once

#include "basekit2/UniqueFd.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kolvan::test {

/// An archive that is open for reading. Threads: any member from any thread.
class PackageFile {
public:
    /// @param openFile a regular file
    PackageFile(basekit2::UniqueFd openFile, std::uint64_t size);

    /// Size in bytes when the file was opened.
    std::uint64_t size() const { return fileSize; }

    /// Reads up to `length` bytes from `offset`; shorter at the end of the file.
    /// @return nothing when the file cannot be read
    std::optional<std::string> read(std::uint64_t offset, std::size_t length) const;

private:
    const basekit2::UniqueFd file;
    const std::uint64_t fileSize;
};

/// Opens one archive in the package directory.
/// @param name a plain file name; anything else is not found
/// @return null when there is no such regular file directly in the directory
std::shared_ptr<const PackageFile> openPackage(const std::filesystem::path& directory,
                                               const std::string& name);

/// Returns the archive name in a request's address exactly as it was sent. An agent does not
/// encode it, so "&", "+" and "%" may belong to the name.
std::string rawPackageName(std::string_view target);

}  // namespace kolvan::test
