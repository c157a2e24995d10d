#pragma once

#include "companions/server/store/Records.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string_view>

namespace kolvan::server {

/// What operations have written to their three channels, a file each.
///
/// Bytes are in the file when `append` returns: the end of this process loses none of them. They
/// are not forced onto the disk one by one, so that a crash of the machine may lose the last
/// seconds.
///
/// Threads: any member from any thread. All of them block on the disk.
/// @throws std::system_error where the disk refuses; what was there before is still there
class OutputFiles {
public:
    /// @param outputDirectory where the files lie; made when it is missing, for this user alone
    explicit OutputFiles(std::filesystem::path outputDirectory);

    /// Adds bytes at the end of a channel. Of a piece that the disk takes only in part, that part
    /// stays.
    /// @param operation one that the store knows: its id becomes the name of a directory
    /// @return the size of the channel afterwards
    std::uint64_t append(const OperationId& operation, OutputChannel channel,
                         std::string_view bytes) const;

    /// Bytes of a channel so far; 0 when it has said nothing.
    std::uint64_t size(const OperationId& operation, OutputChannel channel) const;

    /// Reads from `offset` on until `buffer` is full or the channel is at its present end.
    /// @return the number of bytes read
    std::size_t read(const OperationId& operation, OutputChannel channel, std::uint64_t offset,
                     std::span<char> buffer) const;

    /// Where a channel lies; the file is missing as long as the channel has said nothing.
    std::filesystem::path path(const OperationId& operation, OutputChannel channel) const;

    /// Removes all that an operation has written.
    void remove(const OperationId& operation) const;

    /// Bytes that were added through this object.
    std::uint64_t added() const noexcept { return addedBytes; }

private:
    const std::filesystem::path directory;
    mutable std::atomic<std::uint64_t> addedBytes{0};
};

}  // namespace kolvan::server
