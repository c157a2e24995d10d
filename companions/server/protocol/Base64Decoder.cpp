#include "companions/server/protocol/Base64Decoder.h"

#include <array>

namespace kolvan::server::protocol {
namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint32_t kNone = 1U << 31U;

// The six bits of every character, ready at one of the four places of a group.
constexpr std::array<std::uint32_t, 256> makeTable(unsigned shift) {
    std::array<std::uint32_t, 256> table{};
    table.fill(kNone);
    for (std::size_t value = 0; value < kAlphabet.size(); ++value) {
        table[static_cast<unsigned char>(kAlphabet[value])] = static_cast<std::uint32_t>(value)
                                                              << shift;
    }
    return table;
}

constexpr std::array<std::array<std::uint32_t, 256>, 4> kTables = {makeTable(18), makeTable(12),
                                                                   makeTable(6), makeTable(0)};

std::uint32_t bitsOf(const char* group) {
    return kTables[0][static_cast<unsigned char>(group[0])] |
           kTables[1][static_cast<unsigned char>(group[1])] |
           kTables[2][static_cast<unsigned char>(group[2])] |
           kTables[3][static_cast<unsigned char>(group[3])];
}

}  // namespace

void Base64Decoder::put(std::string_view text, std::string& decoded) {
    while (!text.empty() && filled != 0) {
        putCharacter(text.front(), decoded);
        text.remove_prefix(1);
    }
    // Whole groups in one go; what is none of the alphabet is looked at below.
    std::size_t taken = 0;
    if (padding == 0) {
        const std::size_t begin = decoded.size();
        decoded.resize(begin + text.size() / 4 * 3);
        char* out = decoded.data() + begin;
        for (; taken + 4 <= text.size(); taken += 4) {
            const std::uint32_t bits = bitsOf(text.data() + taken);
            if ((bits & kNone) != 0) {
                break;
            }
            *out++ = static_cast<char>(bits >> 16U);
            *out++ = static_cast<char>(bits >> 8U);
            *out++ = static_cast<char>(bits);
        }
        decoded.resize(begin + taken / 4 * 3);
        position += taken;
    }
    for (const char character : text.substr(taken)) {
        putCharacter(character, decoded);
    }
}

void Base64Decoder::putCharacter(char character, std::string& decoded) {
    const std::uint32_t bits = kTables[3][static_cast<unsigned char>(character)];
    const bool isPadding = character == '=' && filled >= 2;
    const bool ended = padding != 0 && filled == 0;
    if (ended || (bits == kNone && !isPadding) || (padding != 0 && !isPadding)) {
        throw ProtocolError("This is no Base64", position);
    }
    ++position;
    padding += isPadding ? 1 : 0;
    group = group << 6U | (isPadding ? 0 : bits);
    if (++filled < 4) {
        return;
    }
    const std::uint32_t unused = padding == 0 ? 0 : padding == 1 ? 0xFFU : 0xFFFFU;
    if ((group & unused) != 0) {
        throw ProtocolError("This is no Base64, because of bits without meaning,", position - 1);
    }
    for (int byte = 0; byte < 3 - padding; ++byte) {
        decoded.push_back(static_cast<char>(group >> (16U - 8U * static_cast<unsigned>(byte))));
    }
    group = 0;
    filled = 0;
}

void Base64Decoder::finish() const {
    if (filled != 0) {
        throw ProtocolError("The Base64 ends too early", position);
    }
}

}  // namespace kolvan::server::protocol
