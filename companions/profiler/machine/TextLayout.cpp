#include "companions/profiler/machine/TextLayout.h"

#include <algorithm>

#include <sys/ioctl.h>
#include <unistd.h>

namespace kolvan::profiler {

namespace {

std::string blanks(std::size_t width, std::size_t taken) {
    return std::string(width > taken ? width - taken : 0, ' ');
}

}  // namespace

std::size_t characterCount(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
        return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
    }));
}

std::string leftAligned(std::string_view text, std::size_t width) {
    return std::string(text) + blanks(width, characterCount(text));
}

std::string rightAligned(std::string_view text, std::size_t width) {
    return blanks(width, characterCount(text)) + std::string(text);
}

std::string wrapped(std::string_view text, std::string_view first, std::size_t width) {
    const std::size_t indent = characterCount(first);
    std::string lines(first);
    std::size_t column = indent;
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(' '));
        text.remove_prefix(std::min(word.size() + 1, text.size()));
        const std::size_t length = characterCount(word);
        if (column > indent && column + 1 + length > width) {
            lines += "\n" + std::string(indent, ' ');
            column = indent;
        } else if (column > indent) {
            lines += ' ';
            ++column;
        }
        lines += word;
        column += length;
    }
    return lines + "\n";
}

std::size_t terminalWidth() {
    constexpr std::size_t kUsual = 80;
    winsize size{};
    return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kUsual;
}

}  // namespace kolvan::profiler
