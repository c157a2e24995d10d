#include "companions/profiler/output/TerminalProgress.h"

#include "companions/profiler/output/TextEscape.h"

#include <cstddef>
#include <string_view>

#include <sys/ioctl.h>
#include <unistd.h>

namespace kolvan::profiler {

namespace {

/// ECMA-48: to the first column, and erase from there to the end of the line.
constexpr std::string_view kEraseLine = "\r\x1B[K";

std::size_t terminalWidth() {
    constexpr std::size_t kUsual = 80;
    winsize size{};
    const bool known = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : kUsual;
}

/// Without half of a character (UTF-8) at its end.
std::string cutAtTheEnd(std::string text, std::size_t most) {
    if (text.size() > most) {
        while (most > 0 && (static_cast<unsigned char>(text[most]) & 0xC0U) == 0x80U) {
            --most;
        }
        text.resize(most);
    }
    return text;
}

/// A terminal that has gone is no reason to end a collection.
void writeToTerminal(const std::string& text) {
    (void)!::write(STDERR_FILENO, text.data(), text.size());
}

}  // namespace

TerminalProgress::TerminalProgress() : active(::isatty(STDERR_FILENO) == 1) {}

TerminalProgress::~TerminalProgress() {
    clear();
}

void TerminalProgress::show(const std::string& text) {
    if (active) {
        // The last column stays free: some terminals begin a new line behind it.
        writeToTerminal(std::string(kEraseLine) +
                        cutAtTheEnd(printable(text), terminalWidth() - 1));
        shown = true;
    }
}

void TerminalProgress::clear() {
    if (shown) {
        writeToTerminal(std::string(kEraseLine));
        shown = false;
    }
}

}  // namespace kolvan::profiler
