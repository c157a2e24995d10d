#pragma once

#include "companions/server/http/Awaitable.h"
#include "companions/server/http/Socket.h"

#include <openssl/types.h>

#include <cstddef>
#include <memory>
#include <span>
#include <stdexcept>
#include <string_view>

namespace kolvan::server::http {

/// The connection cannot be used any more: broken, or closed by the other side.
class ConnectionLost : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The other side has kept us waiting for too long.
class TooSlow : public ConnectionLost {
public:
    using ConnectionLost::ConnectionLost;
};

/// Bytes in both directions over one connection, with or without TLS.
///
/// Threads: those of the socket's executor. Every wait throws `TooSlow` when `patience` is over,
/// and `ConnectionLost` when the connection breaks.
class Stream {
public:
    using Duration = Socket::Duration;

    virtual ~Stream() = default;

    /// Prepares the connection, as TLS asks for.
    virtual Awaitable<void> open(Duration patience) = 0;

    /// Reads what there is, at least one byte.
    /// @return how many bytes; 0 when the other side has ended
    virtual Awaitable<std::size_t> readSome(std::span<char> buffer, Duration patience) = 0;

    /// Reads what is there already. From any thread, while no other one uses the stream.
    /// @return how many bytes; 0 when `readSome` would wait, and also when the connection has ended
    ///     or broken, which that tells
    virtual std::size_t readNow(std::span<char> buffer) = 0;

    /// Writes as much of the bytes as goes now, at least one of them.
    virtual Awaitable<std::size_t> writeSome(std::string_view bytes, Duration patience) = 0;

    /// Says that nothing more will come from here.
    virtual void closeWriting() = 0;

    virtual Socket& socket() = 0;
};

/// A stream that is the socket.
std::unique_ptr<Stream> makePlainStream(std::unique_ptr<Socket> socket);

/// A stream that is TLS over the socket, as the server's side.
/// @param context certificate and settings
/// @throws std::runtime_error when there is no memory for it
std::unique_ptr<Stream> makeTlsStream(std::unique_ptr<Socket> socket, SSL_CTX* context);

}  // namespace kolvan::server::http
