#pragma once

#include <string>
#include <string_view>

namespace cagnt1 {

/// Encodes bytes in Base64 as RFC 4648 section 4 has it: the standard alphabet, padded with "="
/// to a multiple of four characters, no line breaks.
std::string encodeBase64(std::string_view bytes);

}  // namespace cagnt1
