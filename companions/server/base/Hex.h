#pragma once

#include <cstddef>
#include <span>
#include <string>

namespace kolvan::server {

/// Writes each byte as two hexadecimal digits in lower case.
std::string toHex(std::span<const std::byte> bytes);

}  // namespace kolvan::server
