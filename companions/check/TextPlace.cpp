#include "companions/check/TextPlace.h"

#include <algorithm>

namespace kolvan::check {

Place placeInText(const std::string& file, std::string_view text, std::size_t offset) {
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    std::string_view before = text.substr(0, offset);
    if (before.starts_with(kByteOrderMark)) {
        before.remove_prefix(kByteOrderMark.size());
    }
    const auto lineEnds = std::count(before.begin(), before.end(), '\n');
    // With no line end, npos + 1 is 0: the whole text is the line.
    const std::string_view line = before.substr(before.rfind('\n') + 1);
    const auto characters = std::count_if(line.begin(), line.end(), [](char byte) {
        return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U;  // begins a character
    });
    return {file, static_cast<std::size_t>(lineEnds) + 1, static_cast<std::size_t>(characters) + 1};
}

}  // namespace kolvan::check
