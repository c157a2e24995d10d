#pragma once

#include <filesystem>
#include <string>

namespace kolvan::test {

/// A directory of its own for one test, removed with everything in it at the end.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();

    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return directory; }

    /// Full path, as text, of an entry below the directory.
    std::string entry(const std::string& relativePath) const { return directory / relativePath; }

    /// Writes `content` to a file below the directory, whose parents are created.
    /// @return its full path
    std::string write(const std::string& relativePath, const std::string& content) const;

private:
    std::filesystem::path directory;
};

/// Whole content of a file.
/// @throws std::runtime_error when it cannot be read
std::string readFile(const std::filesystem::path& file);

}  // namespace kolvan::test
