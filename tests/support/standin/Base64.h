#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kolvan::test {

/// Decodes Base64 in its standard alphabet, padded and without line breaks.
/// @return nothing when the text is not of that form
std::optional<std::string> decodeBase64(std::string_view text);

}  // namespace kolvan::test
