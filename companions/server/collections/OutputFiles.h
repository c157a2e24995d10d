#pragma once

#include "basekit2/UniqueFd.h"
#include "companions/server/store/Records.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <set>
#include <span>
#include <string_view>
#include <utility>

namespace kolvan::server {

/// What operations have written to their three channels, a file each.
///
/// Bytes are in the file when `append` returns: the end of this process loses none of them. They
/// are not forced onto the disk one by one, so that a crash of the machine may lose the last
/// seconds.
///
/// What the disk has refused is missing: agents send nothing twice. Whoever reads the channel is
/// told where, by a line of the server's own, which follows as soon as there is room again.
///
/// Threads: any member from any thread; each channel from one at a time. All of them block on the
/// disk.
/// @throws std::system_error where the disk refuses; what was there before is still there
class OutputFiles {
public:
    /// Stands where output is missing.
    static constexpr std::string_view kGap =
        "\n[Output is missing here: the server could not write it to its disk.]\n";

    /// @param outputDirectory where the files lie; made when it is missing, for this user alone
    explicit OutputFiles(std::filesystem::path outputDirectory);

    /// Adds bytes at the end of a channel. Of a piece that the disk takes only in part, that part
    /// stays.
    /// @param operation one that the store knows: its id becomes the name of a directory
    /// @return the size of the channel afterwards
    std::uint64_t append(const OperationId& operation, OutputChannel channel,
                         std::string_view bytes) const;

    /// Remembers that bytes of a channel have come which could not even be offered to the disk.
    void noteGap(const OperationId& operation, OutputChannel channel) const;

    /// Says where the end of a channel is missing. To be called when its operation has ended.
    void finish(const OperationId& operation) const;

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
    using Channel = std::pair<OperationId, OutputChannel>;

    basekit2::UniqueFd openToAppend(const Channel& channel) const;
    bool hasGap(const Channel& channel) const;
    void closeGap(const Channel& channel, int file) const;

    const std::filesystem::path directory;
    mutable std::atomic<std::uint64_t> addedBytes{0};
    mutable std::mutex mutex;        // guards gaps
    mutable std::set<Channel> gaps;  // channels whose latest bytes are missing
};

}  // namespace kolvan::server
