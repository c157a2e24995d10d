#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kolvan::server::http {

/// The names and values of a query in their order. A name may come more than once.
using Query = std::vector<std::pair<std::string, std::string>>;

/// What a request asks for.
struct Target {
    /// The path's pieces between slashes, decoded, so that one may hold a slash. "/" has none; a
    /// slash at the end makes an empty last one. Slashes at the beginning count as one: that is
    /// what agents send whose configured address ends in a slash.
    std::vector<std::string> segments;

    /// What follows the question mark, as it was sent.
    std::string rawQuery;
};

/// Reads a request's target: a path with or without a query, or a whole address, as a client sends
/// it that takes us for a proxy.
/// @return nothing where the text is no such thing or holds a broken or forbidden encoding (of NUL)
std::optional<Target> parseTarget(std::string_view text);

/// Reads a query. A plus sign stands for a blank, as in forms.
/// @return nothing where an encoding is broken or forbidden
std::optional<Query> parseQuery(std::string_view rawQuery);

}  // namespace kolvan::server::http
