#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kolvan::profiler {

/// Characters of a text that is UTF-8, which a terminal draws in one column each; not so the wide
/// ones of East Asia.
std::size_t characterCount(std::string_view text);

/// Fills `text` up with blanks to `width` characters, at its end or at its beginning.
std::string leftAligned(std::string_view text, std::size_t width);
std::string rightAligned(std::string_view text, std::size_t width);

/// Breaks `text` at blanks into lines of `width` characters at most, each with a line feed at its
/// end. The first begins with `first`, the others with as many blanks. Words that are longer than a
/// line stay whole.
std::string wrapped(std::string_view text, std::string_view first, std::size_t width);

/// Columns of the terminal that standard output is; 80 where it does not tell.
std::size_t terminalWidth();

}  // namespace kolvan::profiler
