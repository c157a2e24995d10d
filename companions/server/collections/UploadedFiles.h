#pragma once

#include "companions/server/base/IncomingFiles.h"
#include "companions/server/store/Records.h"

#include <filesystem>

namespace kolvan::server {

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

    /// @param name relative path of the file, already found safe: it stays below its collection
    /// @throws std::system_error
    IncomingFile begin(const CollectionId& collection, const std::filesystem::path& name) const;

    /// Where a file lies when it is whole.
    std::filesystem::path path(const CollectionId& collection,
                               const std::filesystem::path& name) const;

    /// Removes all files of a collection.
    void remove(const CollectionId& collection) const;

    /// Bytes that came through this object, those of uploads that broke off included.
    std::uint64_t received() const noexcept { return incoming.received(); }

private:
    const std::filesystem::path kept;
    const IncomingDirectory incoming;  // goes first: no upload is open then
};

}  // namespace kolvan::server
