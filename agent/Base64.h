#pragma once

#include <string>
#include <string_view>

namespace cagnt1 {

/// Encodes bytes that come in pieces in Base64 as RFC 4648 section 4 has it: the standard
/// alphabet, padded with "=" to a multiple of four characters, no line breaks.
class Base64Encoder {
public:
    /// Appends to `text` what the bytes give so far; up to two of them wait for the next piece.
    /// @throws std::bad_alloc; nothing has changed then
    void append(std::string& text, std::string_view bytes);

    /// Appends what is left and the padding. The encoder is ready for the next text.
    /// @throws std::bad_alloc; nothing has changed then
    void finish(std::string& text);

private:
    std::string rest;  // fewer bytes than make a group of three
};

}  // namespace cagnt1
