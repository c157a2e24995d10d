#include "companions/profiler/output/TextEscape.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace kolvan::profiler {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
constexpr std::string_view kCut = "...";
constexpr std::string_view kHexDigits = "0123456789abcdef";

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

void appendJson(std::string& result, std::string_view sequence) {
    const char character = sequence.front();
    if (character == '"' || character == '\\') {
        result += '\\';
        result += character;
    } else if (static_cast<unsigned char>(character) < 0x20) {
        const auto code = static_cast<unsigned char>(character);
        result += "\\u00";
        result += kHexDigits[code >> 4];
        result += kHexDigits[code & 0x0F];
    } else {
        result += sequence;
    }
}

void appendXml(std::string& result, std::string_view sequence) {
    switch (sequence.front()) {
        case '&':
            result += "&amp;";
            return;
        case '<':
            result += "&lt;";
            return;
        case '>':
            result += "&gt;";
            return;
        case '"':
            result += "&quot;";
            return;
        case '\t':
            result += "&#9;";
            return;
        case '\n':
            result += "&#10;";
            return;
        case '\r':
            result += "&#13;";
            return;
        default:
            break;
    }
    const bool control = static_cast<unsigned char>(sequence.front()) < 0x20;
    const bool noCharacter = sequence == "\xEF\xBF\xBE" || sequence == "\xEF\xBF\xBF";
    result += control || noCharacter ? kReplacement : sequence;
}

void appendPrintable(std::string& result, std::string_view sequence) {
    const auto first = static_cast<unsigned char>(sequence.front());
    // The last are the controls U+0080 to U+009F: some terminals obey them as they do Escape.
    const bool control = first < 0x20 || first == 0x7F ||
                         (first == 0xC2 && static_cast<unsigned char>(sequence[1]) < 0xA0);
    result += control ? "?" : sequence;
}

template <typename Append>
std::string escape(std::string_view text, Append append) {
    std::string result;
    result.reserve(text.size() + 2);
    while (!text.empty()) {
        const std::size_t length = sequenceLength(text);
        if (length == 0) {
            result += kReplacement;
        } else {
            append(result, text.substr(0, length));
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return result;
}

}  // namespace

std::string jsonString(std::string_view text) {
    return '"' + escape(text, appendJson) + '"';
}

std::string xmlAttribute(std::string_view text) {
    return escape(text, appendXml);
}

std::string validUtf8(std::string_view text) {
    return escape(text, [](std::string& result, std::string_view sequence) { result += sequence; });
}

std::string printable(std::string_view text) {
    return escape(text, appendPrintable);
}

std::string cutInTheMiddle(std::string_view text, std::size_t most) {
    std::string whole = validUtf8(text);
    std::vector<std::size_t> begins;  // of each character
    for (std::size_t index = 0; index < whole.size(); ++index) {
        const bool continues = (static_cast<unsigned char>(whole[index]) & 0xC0) == 0x80;
        if (!continues) {
            begins.push_back(index);
        }
    }
    if (begins.size() <= most) {
        return whole;
    }
    const std::size_t kept = most - kCut.size();
    const std::size_t atTheEnd = kept / 2;
    const std::size_t cutBegin = begins[kept - atTheEnd];
    const std::size_t cutEnd = atTheEnd == 0 ? whole.size() : begins[begins.size() - atTheEnd];
    return whole.replace(cutBegin, cutEnd - cutBegin, kCut);
}

std::string decimalText(double value, int decimals) {
    // Long enough for the largest double; what is no number would be no JSON either.
    std::array<char, 400> buffer{};
    const auto [end, error] =
        std::to_chars(buffer.data(), buffer.data() + buffer.size(),
                      std::isfinite(value) ? value : 0, std::chars_format::fixed, decimals);
    return error == std::errc() ? std::string(buffer.data(), end) : "0";
}

}  // namespace kolvan::profiler
