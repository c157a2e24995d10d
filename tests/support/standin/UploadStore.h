#pragma once

#include "basekit2/UniqueFd.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

namespace kolvan::test {

/// One file that an agent has sent.
struct UploadRecord {
    std::string remoteDirectory;       ///< as the agent named it
    std::string fileName;              ///< as the agent named it
    std::uint64_t size = 0;            ///< bytes
    std::filesystem::path storedPath;  ///< where it is now
};

/// The directory in which uploads are kept. Nothing is ever written outside of it, whatever
/// symbolic links lie in it already.
///
/// Threads: any member from any thread. Uploads of one name at one time leave one of them, whole.
class UploadStore {
public:
    /// A file that is arriving. It has a name of its own until `keep()`; without that it vanishes.
    class Incoming {
    public:
        ~Incoming();
        Incoming(Incoming&&) = delete;
        Incoming& operator=(Incoming&&) = delete;
        Incoming(const Incoming&) = delete;
        Incoming& operator=(const Incoming&) = delete;

        /// Appends to the file.
        /// @throws std::system_error when the file cannot be written
        void write(std::string_view data);

        /// Bytes written so far.
        std::uint64_t size() const { return length; }

        /// Gives the file, now complete, its place; one that is there already is replaced.
        /// @param path below the directory, as `safeUploadPath` makes it
        /// @return where it is now
        /// @throws std::system_error when a directory on the way cannot be made or entered
        std::filesystem::path keep(const std::string& path);

    private:
        friend class UploadStore;
        explicit Incoming(UploadStore& store);

        UploadStore& store;
        std::string name;
        basekit2::UniqueFd file;
        std::uint64_t length = 0;
        bool kept = false;
    };

    /// Opens the directory and makes it when it is missing.
    /// @throws std::system_error when that fails
    explicit UploadStore(const std::filesystem::path& directory);

    /// Begins a file.
    /// @throws std::system_error when it cannot be made
    std::unique_ptr<Incoming> begin();

private:
    const std::filesystem::path root;
    const basekit2::UniqueFd rootDirectory;
    std::atomic<std::size_t> counter{0};
};

}  // namespace kolvan::test
