#pragma once

#include "companions/check/Finding.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace kolvan::check {

enum class JsonKind { Null, Boolean, Number, Text, Object, Array };

/// A member of the outermost object.
struct JsonMember {
    std::string key;
    std::size_t keyOffset = 0;  ///< in bytes, of the quote with which the key begins
    JsonKind kind = JsonKind::Null;
    std::string text;  ///< of a member of the kind Text, NULs included
};

/// Where and why a text is not JSON. A warning is what the agent does not mind.
struct JsonMistake {
    Severity severity = Severity::Error;
    std::string topic;       ///< as in `Finding`
    std::size_t offset = 0;  ///< in bytes
    std::string text;        ///< a whole sentence
};

/// What can be told of a text that should be one JSON object.
struct JsonOutline {
    std::vector<JsonMistake> mistakes;  ///< no error among them: it is strict JSON
    std::optional<JsonKind> kind;       ///< of the outermost value; none where the text is broken
    std::vector<JsonMember> members;    ///< empty where the text is broken
};

/// Reads a text as strict JSON, and tells the mistakes with their places. What can be read in spite
/// of a byte-order mark or of comments is read, so that one look shows as much as possible.
JsonOutline outlineOf(const std::string& text);

}  // namespace kolvan::check
