#include "tests/support/standin/Base64.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace kolvan::test {
namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t kNoDigit = 0xFF;

constexpr std::array<std::uint8_t, 256> makeDigitTable() {
    std::array<std::uint8_t, 256> table{};
    table.fill(kNoDigit);
    for (std::size_t digit = 0; digit < kAlphabet.size(); ++digit) {
        table[static_cast<unsigned char>(kAlphabet[digit])] = static_cast<std::uint8_t>(digit);
    }
    return table;
}

constexpr auto kDigits = makeDigitTable();

}  // namespace

std::optional<std::string> decodeBase64(std::string_view text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::size_t padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') {
        ++padding;
    }
    std::string decoded;
    decoded.reserve(text.size() / 4 * 3);
    std::uint32_t bits = 0;
    unsigned int bitCount = 0;
    for (const char character : text.substr(0, text.size() - padding)) {
        const std::uint8_t digit = kDigits[static_cast<unsigned char>(character)];
        if (digit == kNoDigit) {
            return std::nullopt;
        }
        bits = (bits << 6) | digit;
        bitCount += 6;
        if (bitCount >= 8) {
            bitCount -= 8;
            decoded.push_back(static_cast<char>(static_cast<unsigned char>(bits >> bitCount)));
        }
    }
    return decoded;
}

}  // namespace kolvan::test
