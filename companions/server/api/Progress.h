#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kolvan::server::api {

/// How far a collection is, as its collector says over the feedback.
struct Progress {
    double elapsedSeconds = 0;
    std::optional<std::uint64_t> samples;  ///< of the profile; of the timeline where there is none
    std::optional<std::string> hottest;    ///< the function that takes most; any bytes

    friend bool operator==(const Progress&, const Progress&) = default;
};

/// Reads one line of feedback: <progress elapsed="5.0" stacks="4995" top1="72.1 % hash"/>. Any
/// program may be the collector, so that any bytes may come.
/// @param line without its end
/// @return nothing when the line says nothing of progress
std::optional<Progress> progressOf(std::string_view line);

}  // namespace kolvan::server::api
