#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace kolvan::server::profiles {

/// Fills `buffer` with up to `size` bytes of a file. @return their number; 0 at its end
using ByteSource = std::function<std::size_t(char* buffer, std::size_t size)>;

/// What is inside a gzip file, piece by piece.
class GunzipStream {
public:
    /// @param mostBytes how much may come out of it; a few thousand bytes can hold gigabytes
    GunzipStream(ByteSource source, std::uint64_t mostBytes);
    ~GunzipStream();

    GunzipStream(const GunzipStream&) = delete;
    GunzipStream& operator=(const GunzipStream&) = delete;

    /// Fills `buffer` with up to `size` bytes.
    /// @return their number; 0 at the end, when length and checksum were right
    /// @throws UnreadableProfile when it is no gzip file, damaged, cut off or too large; and what
    ///         the source throws
    std::size_t read(char* buffer, std::size_t size);

private:
    struct Stream;  // of zlib, which nobody else needs to know

    bool refill();

    const ByteSource source;
    const std::uint64_t most;
    std::uint64_t produced = 0;
    bool ended = false;
    std::vector<char> input;
    const std::unique_ptr<Stream> stream;
};

}  // namespace kolvan::server::profiles
