#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace kolvan::server::http {

/// What goes through a server, for whoever watches it.
///
/// Threads: the network thread.
struct Traffic {
    std::size_t connections = 0;  ///< at present, those included that are told to come later

    /// Responses so far, by the first digit of their status; there is none at 0.
    std::array<std::uint64_t, 6> responses{};
};

}  // namespace kolvan::server::http
