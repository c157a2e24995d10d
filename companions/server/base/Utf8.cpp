#include "companions/server/base/Utf8.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

namespace kolvan::server {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

/// Length of the UTF-8 sequence at the beginning of `text`, 0 when it is none.
std::size_t sequenceLength(std::string_view text) {
    const auto byteAt = [text](std::size_t index) {
        return std::uint32_t{static_cast<unsigned char>(text[index])};
    };
    const std::uint32_t first = byteAt(0);
    if (first < 0x80) {
        return 1;
    }
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length) {
        return 0;
    }
    std::uint32_t codePoint = first & (0x7FU >> length);
    for (std::size_t index = 1; index < length; ++index) {
        if ((byteAt(index) & 0xC0) != 0x80) {
            return 0;
        }
        codePoint = (codePoint << 6) | (byteAt(index) & 0x3F);
    }
    const std::array<std::uint32_t, 5> least = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    return codePoint >= least[length] && codePoint <= 0x10FFFF && !surrogate ? length : 0;
}

/// Whether some bytes behind `text` would make one character of it.
bool mayBecomeCharacter(std::string_view text) {
    // Of what may follow, one of the ends of the range fits if anything does: the second byte has
    // the narrowest limits, and is the only one that decides between them.
    for (const char continuation : {'\x80', '\xBF'}) {
        const std::string whole = std::string(text) + std::string(4 - text.size(), continuation);
        if (sequenceLength(whole) > text.size()) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::string validUtf8(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = sequenceLength(text);
        result += length == 0 ? kReplacement : text.substr(0, length);
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return result;
}

std::size_t wholeUtf8Length(std::string_view text) {
    constexpr std::size_t kLongestBeginning = 3;
    for (std::size_t length = 1; length <= std::min(kLongestBeginning, text.size()); ++length) {
        if (mayBecomeCharacter(text.substr(text.size() - length))) {
            return text.size() - length;
        }
    }
    return text.size();
}

std::size_t characterCount(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
        return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
    }));
}

}  // namespace kolvan::server
