#include "companions/server/http/Stream.h"

#include <cerrno>
#include <system_error>

#include <sys/socket.h>

namespace kolvan::server::http {
namespace {

[[noreturn]] void lost(int error) {
    throw ConnectionLost(std::generic_category().message(error));
}

bool isTemporary(int error) {
    return error == EAGAIN || error == EINTR;
}

class PlainStream final : public Stream {
public:
    explicit PlainStream(std::unique_ptr<Socket> connected) : connection(std::move(connected)) {}

    Awaitable<void> open(Duration /*patience*/) override { co_return; }

    Awaitable<std::size_t> readSome(std::span<char> buffer, Duration patience) override {
        for (;;) {
            const ssize_t length =
                ::recv(connection->descriptor(), buffer.data(), buffer.size(), 0);
            if (length >= 0) {
                co_return static_cast<std::size_t>(length);
            }
            if (const int error = errno; !isTemporary(error)) {
                lost(error);
            }
            if (!co_await connection->wait(Direction::In, patience)) {
                throw TooSlow("nothing was received for too long");
            }
        }
    }

    std::size_t readNow(std::span<char> buffer) override {
        const ssize_t length = ::recv(connection->descriptor(), buffer.data(), buffer.size(), 0);
        return length > 0 ? static_cast<std::size_t>(length) : 0;
    }

    Awaitable<std::size_t> writeSome(std::string_view bytes, Duration patience) override {
        for (;;) {
            const ssize_t length =
                ::send(connection->descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (length >= 0) {
                co_return static_cast<std::size_t>(length);
            }
            if (const int error = errno; !isTemporary(error)) {
                lost(error);
            }
            if (!co_await connection->wait(Direction::Out, patience)) {
                throw TooSlow("nothing was taken for too long");
            }
        }
    }

    void closeWriting() override { connection->shutDownWriting(); }

    Socket& socket() override { return *connection; }

private:
    const std::unique_ptr<Socket> connection;
};

}  // namespace

std::unique_ptr<Stream> makePlainStream(std::unique_ptr<Socket> socket) {
    return std::make_unique<PlainStream>(std::move(socket));
}

}  // namespace kolvan::server::http
