#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kolvan::server::http {

/// Header fields in their order: names and values.
using Fields = std::vector<std::pair<std::string, std::string>>;

/// Finds the first field of that name; letters' case does not count.
std::optional<std::string_view> findField(const Fields& fields, std::string_view name);

/// Tells whether two texts differ at most in the case of ASCII letters.
bool equalIgnoringCase(std::string_view left, std::string_view right);

}  // namespace kolvan::server::http
