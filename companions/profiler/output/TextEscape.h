#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kolvan::profiler {

/// Returns `text` as a JSON string, quotes included. Bytes that are no UTF-8 become U+FFFD, so that
/// thread names and arguments, which may hold any byte, never spoil a file.
std::string jsonString(std::string_view text);

/// Returns `text` for use between the double quotes of an XML attribute, on one line. What XML
/// cannot hold becomes U+FFFD.
std::string xmlAttribute(std::string_view text);

/// Returns `text` with every byte that is no UTF-8 replaced by U+FFFD.
std::string validUtf8(std::string_view text);

/// Returns `text` as a terminal may show it: control characters, which could act on the terminal,
/// become '?', bytes that are no UTF-8 U+FFFD.
std::string printable(std::string_view text);

/// Returns `text` with its middle replaced by "..." where it has more than `most` characters;
/// `most` is at least 3. Bytes that are no UTF-8 become U+FFFD.
std::string cutInTheMiddle(std::string_view text, std::size_t most);

/// Returns `value` with `decimals` digits after the point, whatever the locale.
std::string decimalText(double value, int decimals);

}  // namespace kolvan::profiler
