#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace kolvan::server::http {

/// A part of a file.
struct ByteRange {
    std::uint64_t begin = 0;
    std::uint64_t length = 0;  ///< bytes; 0 means that the file has nothing of what was asked for

    friend bool operator==(const ByteRange&, const ByteRange&) = default;
};

/// Reads the header field "Range" of a request for a file.
/// @return nothing when all of the file is to be sent: the field is none that we understand, or
///     asks for several parts
std::optional<ByteRange> parseRange(std::string_view field, std::uint64_t fileSize);

}  // namespace kolvan::server::http
