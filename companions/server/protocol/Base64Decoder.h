#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kolvan::server::protocol {

/// What an agent has sent cannot be read.
class ProtocolError : public std::runtime_error {
public:
    /// @param place offset, in bytes from the beginning of what was read, where it goes wrong
    ProtocolError(const std::string& what, std::uint64_t place)
        : std::runtime_error(what + " at byte " + std::to_string(place)), offset(place) {}

    std::uint64_t place() const { return offset; }

private:
    std::uint64_t offset;
};

/// Decodes Base64 that comes in pieces: the standard alphabet, padded, without line breaks, and
/// with nothing in the bits that the padding leaves over, so that there is one text for each
/// content.
class Base64Decoder {
public:
    /// Bytes that so much text becomes at most, with what was put before it.
    static constexpr std::size_t mostOf(std::size_t length) { return (length + 3) / 4 * 3; }

    /// Decodes the next piece, which may end anywhere.
    /// @param decoded room for `mostOf(text.size())` bytes
    /// @return the end of what was decoded
    /// @throws ProtocolError with a place in all of the text
    char* put(std::string_view text, char* decoded);

    /// Ends the text.
    /// @throws ProtocolError when its last group is not complete
    void finish() const;

private:
    char* putCharacter(char character, char* decoded);

    std::uint64_t position = 0;  // characters taken
    std::uint32_t group = 0;     // bits of the current group of four
    int filled = 0;              // characters of it
    int padding = 0;             // "=" of it; the text ends with the group that has any
};

}  // namespace kolvan::server::protocol
