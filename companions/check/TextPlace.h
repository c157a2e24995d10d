#pragma once

#include "companions/check/Finding.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace kolvan::check {

/// Line and column, as editors count them, of the byte at `offset` in the UTF-8 text of `file`. A
/// byte-order mark at the beginning is no character.
Place placeInText(const std::string& file, std::string_view text, std::size_t offset);

}  // namespace kolvan::check
