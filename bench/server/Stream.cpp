#include "bench/server/Stream.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

#include <sys/sendfile.h>
#include <sys/socket.h>

namespace kolvan::bench {

namespace {

// A read of nothing is the other side's end; a write of nothing does not happen.
ssize_t outcomeOfCall(ssize_t result) {
    if (result > 0) {
        return result;
    }
    return result < 0 && (errno == EAGAIN || errno == EINTR) ? 0 : -1;
}

}  // namespace

Stream::Stream(basekit2::UniqueFd accepted, SSL_CTX* context)
    : socket(std::move(accepted)), tls(context != nullptr ? SSL_new(context) : nullptr) {
    if (tls != nullptr) {
        SSL_set_fd(tls.get(), socket.get());
        SSL_set_accept_state(tls.get());
    }
}

ssize_t Stream::outcome(int result) {
    if (result > 0) {
        return result;
    }
    const int error = SSL_get_error(tls.get(), result);
    return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE ? 0 : -1;
}

ssize_t Stream::read(char* buffer, std::size_t size) {
    const auto length = static_cast<int>(std::min<std::size_t>(size, INT_MAX));
    return tls != nullptr ? outcome(SSL_read(tls.get(), buffer, length))
                          : outcomeOfCall(::recv(socket.get(), buffer, size, 0));
}

ssize_t Stream::discard(std::size_t size) {
    static std::array<char, 65536> unwanted;
    return tls != nullptr ? read(unwanted.data(), std::min(size, unwanted.size()))
                          : outcomeOfCall(::recv(socket.get(), nullptr,
                                                 std::min<std::size_t>(size, INT_MAX), MSG_TRUNC));
}

ssize_t Stream::write(const char* data, std::size_t size) {
    const auto length = static_cast<int>(std::min<std::size_t>(size, INT_MAX));
    return tls != nullptr ? outcome(SSL_write(tls.get(), data, length))
                          : outcomeOfCall(::send(socket.get(), data, size, MSG_NOSIGNAL));
}

ssize_t Stream::sendFile(int file, std::size_t size) {
    return outcomeOfCall(::sendfile(socket.get(), file, nullptr, size));
}

}  // namespace kolvan::bench
