#include "companions/server/base/Hex.h"

namespace kolvan::server {

std::string toHex(std::span<const std::byte> bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::byte byte : bytes) {
        const auto value = std::to_integer<unsigned>(byte);
        text += kDigits[value >> 4U];
        text += kDigits[value & 0x0FU];
    }
    return text;
}

}  // namespace kolvan::server
