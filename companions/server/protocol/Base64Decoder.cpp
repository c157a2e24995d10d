#include "companions/server/protocol/Base64Decoder.h"

#include "companions/server/protocol/Base64Groups.h"

namespace kolvan::server::protocol {

char* Base64Decoder::put(std::string_view text, char* decoded) {
    while (!text.empty() && filled != 0) {
        decoded = putCharacter(text.front(), decoded);
        text.remove_prefix(1);
    }
    // Whole groups in one go; what is none of the alphabet is looked at below.
    if (padding == 0) {
        const std::size_t taken = decodeGroups(text, decoded);
        decoded += taken / 4 * 3;
        position += taken;
        text.remove_prefix(taken);
    }
    for (const char character : text) {
        decoded = putCharacter(character, decoded);
    }
    return decoded;
}

char* Base64Decoder::putCharacter(char character, char* decoded) {
    const unsigned bits = sixBitsOf(character);
    const bool isLetter = bits < 64;
    const bool isPadding = character == '=' && filled >= 2;
    const bool ended = padding != 0 && filled == 0;
    if (ended || (!isLetter && !isPadding) || (padding != 0 && !isPadding)) {
        throw ProtocolError("This is no Base64", position);
    }
    ++position;
    padding += isPadding ? 1 : 0;
    group = group << 6U | (isPadding ? 0 : bits);
    if (++filled < 4) {
        return decoded;
    }
    const std::uint32_t unused = padding == 0 ? 0 : padding == 1 ? 0xFFU : 0xFFFFU;
    if ((group & unused) != 0) {
        throw ProtocolError("This is no Base64, because of bits without meaning,", position - 1);
    }
    for (int byte = 0; byte < 3 - padding; ++byte) {
        *decoded++ = static_cast<char>(group >> (16U - 8U * static_cast<unsigned>(byte)));
    }
    group = 0;
    filled = 0;
    return decoded;
}

void Base64Decoder::finish() const {
    if (filled != 0) {
        throw ProtocolError("The Base64 ends too early", position);
    }
}

}  // namespace kolvan::server::protocol
