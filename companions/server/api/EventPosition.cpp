#include "companions/server/api/EventPosition.h"

#include <charconv>

namespace kolvan::server::api {

namespace {

constexpr char kBetween = '.';

std::optional<std::uint64_t> numberOf(std::string_view text) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number)
                                                                    : std::nullopt;
}

/// Cuts the last part off a text. @return nothing when there is but one part
std::optional<std::uint64_t> takeLast(std::string_view& text) {
    const std::size_t at = text.rfind(kBetween);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view part = text.substr(at + 1);
    text = text.substr(0, at);
    return numberOf(part);
}

}  // namespace

std::string EventPosition::text() const {
    std::string text = start.text;
    for (const std::uint64_t bytes : offset) {
        (text += kBetween) += std::to_string(bytes);
    }
    return (text += kBetween) += std::to_string(static_cast<int>(stage));
}

std::optional<EventPosition> EventPosition::fromText(std::string_view text) {
    EventPosition position;
    const auto number = takeLast(text);
    if (!number || *number > static_cast<std::uint64_t>(Stage::Ended)) {
        return std::nullopt;
    }
    position.stage = static_cast<Stage>(*number);
    for (auto bytes = position.offset.rbegin(); bytes != position.offset.rend(); ++bytes) {
        const auto read = takeLast(text);
        if (!read) {
            return std::nullopt;
        }
        *bytes = *read;
    }
    position.start = OperationId(std::string(text));
    return position;
}

}  // namespace kolvan::server::api
