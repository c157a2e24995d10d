#pragma once

#include <filesystem>

namespace kolvan::server {

/// The directory with everything that the server keeps, for its user alone.
class DataDirectory {
public:
    /// Where it is when nobody says otherwise: kolvan-server below the user's state directory.
    /// @throws std::runtime_error when the environment names neither XDG_STATE_HOME nor HOME
    static std::filesystem::path usualPlace();

    /// Makes the directory, and what is missing above it, for this user alone; or takes one that is
    /// there.
    /// @throws std::runtime_error when it cannot be made, is somebody else's, or is open to others
    explicit DataDirectory(const std::filesystem::path& directory);

    const std::filesystem::path& path() const noexcept { return root; }

    /// The file of the store.
    std::filesystem::path database() const { return root / "kolvan.sqlite"; }

    /// The archives for agents, each named by its SHA-256. Made when it is missing.
    std::filesystem::path packages() const { return room("packages"); }

    /// The files that agents have uploaded, a directory for each collection. Made when it is
    /// missing.
    std::filesystem::path collections() const { return room("collections"); }

    /// What operations have written, a directory for each. Made when it is missing.
    std::filesystem::path output() const { return room("output"); }

    /// The files with symbols that people have uploaded. Made when it is missing.
    std::filesystem::path symbols() const { return room("symbols"); }

    /// Where views of profiles are kept while they are sent. Made when it is missing.
    std::filesystem::path views() const { return room("views"); }

private:
    std::filesystem::path room(const char* name) const;

    std::filesystem::path root;
};

}  // namespace kolvan::server
