#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kolvan::server {

/// Returns `text` with every byte that is no UTF-8 replaced by U+FFFD.
std::string validUtf8(std::string_view text);

/// Length of `text` without the beginning of a character at its end whose other bytes may still
/// come.
std::size_t wholeUtf8Length(std::string_view text);

/// How many characters valid UTF-8 has.
std::size_t characterCount(std::string_view text);

}  // namespace kolvan::server
