#pragma once

#include "basekit2/UniqueFd.h"
#include "companions/server/store/Records.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace kolvan::server {

/// A file that is just being uploaded. It takes its place when it is whole; otherwise nothing of it
/// is left.
/// Threads: one at a time.
class IncomingFile {
public:
    /// Begins a file. `UploadedFiles::begin` is how to get one.
    IncomingFile(std::filesystem::path incomingPath, std::filesystem::path finalPath);
    ~IncomingFile();

    IncomingFile(IncomingFile&& other) noexcept;
    IncomingFile& operator=(IncomingFile&&) = delete;

    /// @throws std::system_error when the disk does not take all of it
    void write(std::string_view bytes);

    /// Puts the file into its place; one that was there before is replaced as a whole.
    /// @return its size in bytes
    /// @throws std::system_error when that is not possible
    std::uint64_t keep();

private:
    std::filesystem::path incoming;
    std::filesystem::path final;
    basekit2::UniqueFd file;
    std::uint64_t written = 0;
};

/// The files that agents upload, a directory for each collection.
///
/// A file that was kept survives the end of this process; it is not forced onto the disk, so that
/// a crash of the machine may lose what came in the last seconds. Whoever reads compares its size
/// with the recorded one.
///
/// Threads: any member from any thread. All of them block on the disk.
class UploadedFiles {
public:
    /// Makes the directory when it is missing, and removes what processes before this one have not
    /// received whole. One that still receives, while it hands over to this one, is left alone.
    explicit UploadedFiles(const std::filesystem::path& filesDirectory);

    /// @pre no upload is open
    ~UploadedFiles();

    UploadedFiles(const UploadedFiles&) = delete;
    UploadedFiles& operator=(const UploadedFiles&) = delete;

    /// @param name relative path of the file, already found safe: it stays below its collection
    /// @throws std::system_error
    IncomingFile begin(const CollectionId& collection, const std::filesystem::path& name) const;

    /// Where a file lies when it is whole.
    std::filesystem::path path(const CollectionId& collection,
                               const std::filesystem::path& name) const;

    /// Removes all files of a collection.
    void remove(const CollectionId& collection) const;

private:
    const std::filesystem::path kept;
    const std::filesystem::path incoming;  // this process's own
    basekit2::UniqueFd incomingLock;       // held as long as this process receives
};

}  // namespace kolvan::server
