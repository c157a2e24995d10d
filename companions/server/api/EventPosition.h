#pragma once

#include "companions/server/store/Records.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kolvan::server::api {

/// How far somebody has followed a collection. As a text it is the id of an event, so that whoever
/// comes back with the last one goes on behind it, and this server or the next one needs to
/// remember nobody.
struct EventPosition {
    enum class Stage {
        Output,  ///< there may be more output
        Top,     ///< all output and the top were sent
        Ended,   ///< the final state, too
    };

    OperationId start;                      ///< the operation whose output was read
    std::array<std::uint64_t, 3> offset{};  ///< bytes of each `OutputChannel` that were read
    Stage stage = Stage::Output;

    std::uint64_t& of(OutputChannel channel) {
        return offset.at(static_cast<std::size_t>(channel));
    }

    std::string text() const;

    /// @return nothing for what is no text of a position
    static std::optional<EventPosition> fromText(std::string_view text);

    friend bool operator==(const EventPosition&, const EventPosition&) = default;
};

}  // namespace kolvan::server::api
