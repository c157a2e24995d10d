#include "companions/client/Printable.h"

#include <algorithm>

namespace kolvan::client {

namespace {

bool startsCharacter(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
}

bool actsOnTerminals(std::string_view character) {
    const auto byte = [character](std::size_t index) {
        return static_cast<unsigned char>(character[index]);
    };
    switch (character.size()) {
        case 1:
            return byte(0) < 0x20 || byte(0) == 0x7F;
        case 2:  // U+0080 to U+009F: some terminals obey them as they do Escape
            return byte(0) == 0xC2 && byte(1) < 0xA0;
        case 3:  // U+202A to U+202E, U+2066 to U+2069: directions
            return byte(0) == 0xE2 && ((byte(1) == 0x80 && byte(2) >= 0xAA && byte(2) <= 0xAE) ||
                                       (byte(1) == 0x81 && byte(2) >= 0xA6 && byte(2) <= 0xA9));
        default:
            return false;
    }
}

}  // namespace

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        std::size_t length = 1;
        while (length < text.size() && !startsCharacter(text[length])) {
            ++length;
        }
        const std::string_view character = text.substr(0, length);
        result += actsOnTerminals(character) ? "?" : character;
        text.remove_prefix(length);
    }
    return result;
}

std::size_t width(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), startsCharacter));
}

}  // namespace kolvan::client
