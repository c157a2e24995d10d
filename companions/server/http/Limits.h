#pragma once

#include <chrono>
#include <cstddef>

namespace kolvan::server::http {

/// What a client may take of the server. The values suit agents and browsers alike.
struct Limits {
    /// Connections that are served at a time. Some more are told that the server is busy, and what
    /// comes beyond them waits until it is accepted.
    std::size_t connections = 20000;
    std::size_t refusals = 64;

    std::size_t head = std::size_t{16} * 1024;  ///< bytes of request line and header fields

    std::chrono::seconds handshake{20};  ///< for TLS
    std::chrono::seconds firstHead{
        20};  ///< from the connection, or its preparation, to the end of a head
    std::chrono::seconds nextHead{75};  ///< for a connection that has had a request before

    std::chrono::seconds bodyPause{20};  ///< see `Patience`, for bodies in both directions
    std::size_t bodyBytesPerSecond = 1024;
};

}  // namespace kolvan::server::http
