#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::fuzz {

struct JsonMember;

/// A JSON value, read by code that shares nothing with the product.
struct Json {
    enum class Kind { Object, Array, Text, Other };

    Kind kind = Kind::Other;
    std::string text;
    std::vector<JsonMember> members;
    std::vector<Json> elements;

    /// The first member of that name; null when there is none, or this is no object.
    const Json* member(std::string_view name) const;

    /// What the agent makes of a value: a text up to its first NUL, anything else empty.
    std::string asText() const;
};

struct JsonMember {
    std::string name;
    Json value;
};

/// Thrown at texts on which readers may differ: numbers near the end of their range, halves of
/// UTF-16 pairs, nesting that this reader does not follow.
struct Undecided {};

/// Reads strict JSON (RFC 8259, encoding not checked) up to the first NUL.
/// @return nothing where the text is not JSON
/// @throws Undecided
std::optional<Json> readJson(std::string_view text);

}  // namespace kolvan::fuzz
