#pragma once

#include "companions/profiler/base/FileDescriptor.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kolvan::profiler {

/// Writes XML feedback, one element a line, to the descriptor that whoever started us is reading.
///
/// A reader that went away or does not read never stops the measurement: without room, an element
/// is left out; after an error or half an element nothing is written any more.
class Feedback {
public:
    /// One attribute: name and value.
    using Attribute = std::pair<std::string_view, std::string>;

    /// @param number descriptor to write to, which is closed at the end unless it is 0, 1 or 2;
    ///        none, or one that is not open, gives a silent object
    explicit Feedback(std::optional<int> number);
    Feedback(const Feedback&) = delete;
    Feedback& operator=(const Feedback&) = delete;
    ~Feedback() = default;

    /// Writes one element, waiting at most `patience` for room.
    void send(std::string_view element, const std::vector<Attribute>& attributes,
              std::chrono::milliseconds patience = std::chrono::milliseconds(0));

private:
    FileDescriptor owned;
    int descriptor = -1;
};

}  // namespace kolvan::profiler
