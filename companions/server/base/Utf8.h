#pragma once

#include <string>
#include <string_view>

namespace kolvan::server {

/// Returns `text` with every byte that is no UTF-8 replaced by U+FFFD.
std::string validUtf8(std::string_view text);

}  // namespace kolvan::server
