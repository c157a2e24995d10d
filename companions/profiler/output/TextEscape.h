#pragma once

#include <string>
#include <string_view>

namespace kolvan::profiler {

/// Returns `text` as a JSON string, quotes included. Bytes that are no UTF-8 become U+FFFD, so that
/// thread names and arguments, which may hold any byte, never spoil a file.
std::string jsonString(std::string_view text);

/// Returns `text` for use between the double quotes of an XML attribute, on one line. What XML
/// cannot hold becomes U+FFFD.
std::string xmlAttribute(std::string_view text);

/// Returns `value` with `decimals` digits after the point, whatever the locale.
std::string decimalText(double value, int decimals);

}  // namespace kolvan::profiler
