#pragma once

#include "basekit2/UniqueFd.h"

#include <openssl/ssl.h>

#include <cstddef>
#include <memory>

#include <sys/types.h>

namespace kolvan::bench {

struct TlsFree {
    void operator()(SSL_CTX* context) const noexcept { SSL_CTX_free(context); }
    void operator()(SSL* session) const noexcept { SSL_free(session); }
};
using TlsContext = std::unique_ptr<SSL_CTX, TlsFree>;

/// One accepted connection without blocking, plain or under TLS. Every member returns the number
/// of bytes, 0 when it would have to wait, or -1 when the connection is over.
class Stream {
public:
    /// @param context the server's certificate and key; null for a plain connection
    Stream(basekit2::UniqueFd socket, SSL_CTX* context);

    ssize_t read(char* buffer, std::size_t size);

    /// Reads bytes that nobody wants to see; a plain connection does not even copy them.
    ssize_t discard(std::size_t size);

    ssize_t write(const char* data, std::size_t size);

    /// Sends from a file's current position. Plain connections only.
    ssize_t sendFile(int file, std::size_t size);

    int descriptor() const { return socket.get(); }

private:
    ssize_t outcome(int result);

    basekit2::UniqueFd socket;
    std::unique_ptr<SSL, TlsFree> tls;
};

}  // namespace kolvan::bench
