#pragma once

#include "basekit2/UniqueFd.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <string_view>

namespace kolvan::server {

/// A file that is just being received. It takes its place when it is whole; otherwise nothing of it
/// is left.
/// Threads: one at a time.
class IncomingFile {
public:
    /// Begins a file. `IncomingDirectory::begin` is how to get one.
    /// @param receivedBytes where its bytes are counted; outlives this
    IncomingFile(std::filesystem::path incomingPath, std::filesystem::path finalPath,
                 std::atomic<std::uint64_t>& receivedBytes);
    ~IncomingFile();

    IncomingFile(IncomingFile&& other) noexcept;
    IncomingFile& operator=(IncomingFile&&) = delete;

    /// @throws std::system_error when the disk does not take all of it
    void write(std::string_view bytes);

    /// Where the bytes are until the file is kept, for whoever looks at them before.
    const std::filesystem::path& path() const noexcept { return incoming; }

    /// Its place when it is whole.
    const std::filesystem::path& finalPath() const noexcept { return final; }

    /// Puts the file into its place; one that was there before is replaced as a whole.
    /// @return its size in bytes
    /// @throws std::system_error when that is not possible
    std::uint64_t keep();

private:
    std::filesystem::path incoming;
    std::filesystem::path final;
    basekit2::UniqueFd file;
    std::atomic<std::uint64_t>& received;
    std::uint64_t written = 0;
};

/// Where one process receives files: a directory of its own, which goes with it.
///
/// Threads: any member from any thread. All of them block on the disk.
class IncomingDirectory {
public:
    /// Makes the directory below `parent`, and removes what processes before this one have not
    /// received whole. One that still receives, while it hands over to this one, is left alone.
    /// @param parent on the same file system as the places of the files; made when it is missing
    explicit IncomingDirectory(const std::filesystem::path& parent);

    /// @pre no file is being received
    ~IncomingDirectory();

    IncomingDirectory(const IncomingDirectory&) = delete;
    IncomingDirectory& operator=(const IncomingDirectory&) = delete;

    /// Begins a file whose place will be `finalPath`.
    /// @throws std::system_error
    IncomingFile begin(std::filesystem::path finalPath) const;

    /// Bytes that were received so far, those of files that broke off included.
    std::uint64_t received() const noexcept { return receivedBytes; }

private:
    const std::filesystem::path directory;
    mutable std::atomic<std::uint64_t> receivedBytes{0};
    basekit2::UniqueFd lock;  // held as long as this process receives
};

/// Writes all bytes to a descriptor.
/// @param path how the error names it
/// @throws std::system_error when the file takes only a part of them
void writeAll(int descriptor, std::string_view bytes, const std::filesystem::path& path);

}  // namespace kolvan::server
