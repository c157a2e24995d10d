#include "companions/server/http/Stream.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <cstdint>
#include <new>

#include <sys/socket.h>

namespace kolvan::server::http {
namespace {

struct SslDeleter {
    void operator()(SSL* session) const noexcept { SSL_free(session); }
};
using SslSession = std::unique_ptr<SSL, SslDeleter>;

int descriptorOf(BIO* bio) {
    return static_cast<int>(reinterpret_cast<std::intptr_t>(BIO_get_data(bio)));
}

int finish(BIO* bio, ssize_t length, std::size_t* done, void (*retry)(BIO*)) {
    BIO_clear_retry_flags(bio);
    *done = length > 0 ? static_cast<std::size_t>(length) : 0;
    if (length < 0 && (errno == EAGAIN || errno == EINTR)) {
        retry(bio);
    }
    return length > 0 ? 1 : 0;
}

int writeToSocket(BIO* bio, const char* bytes, std::size_t size, std::size_t* written) {
    return finish(bio, ::send(descriptorOf(bio), bytes, size, MSG_NOSIGNAL), written,
                  [](BIO* full) { BIO_set_retry_write(full); });
}

int readFromSocket(BIO* bio, char* bytes, std::size_t size, std::size_t* received) {
    return finish(bio, ::recv(descriptorOf(bio), bytes, size, 0), received,
                  [](BIO* empty) { BIO_set_retry_read(empty); });
}

long controlSocket(BIO* /*bio*/, int command, long /*number*/, void* /*pointer*/) {
    return command == BIO_CTRL_FLUSH ? 1 : 0;
}

// OpenSSL's own way to a socket would raise SIGPIPE when the other side has gone.
BIO_METHOD* makeSocketMethod() {
    BIO_METHOD* method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "socket");
    if (method == nullptr || BIO_meth_set_write_ex(method, writeToSocket) != 1 ||
        BIO_meth_set_read_ex(method, readFromSocket) != 1 ||
        BIO_meth_set_ctrl(method, controlSocket) != 1) {
        throw std::bad_alloc();
    }
    return method;
}

BIO* makeBio(int descriptor) {
    static BIO_METHOD* const method = makeSocketMethod();  // for the life of the process
    BIO* bio = BIO_new(method);
    if (bio == nullptr) {
        throw std::bad_alloc();
    }
    BIO_set_data(bio, reinterpret_cast<void*>(static_cast<std::intptr_t>(descriptor)));
    BIO_set_init(bio, 1);
    return bio;
}

std::string reasonOf(unsigned long error) {
    const char* reason = ERR_reason_error_string(error);
    return reason == nullptr ? "the connection broke" : reason;
}

class TlsStream final : public Stream {
public:
    TlsStream(std::unique_ptr<Socket> connected, SSL_CTX* context)
        : connection(std::move(connected)), session(SSL_new(context)) {
        if (!session) {
            throw std::bad_alloc();
        }
        BIO* bio = makeBio(connection->descriptor());
        SSL_set_bio(session.get(), bio, bio);
        SSL_set_accept_state(session.get());
    }

    Awaitable<void> open(Duration patience) override {
        const auto handshake = [this](std::size_t* /*done*/) {
            return SSL_do_handshake(session.get());
        };
        (void)co_await repeat(handshake, patience);  // there is no count to look at
    }

    Awaitable<std::size_t> readSome(std::span<char> buffer, Duration patience) override {
        const auto read = [this, buffer](std::size_t* done) {
            return SSL_read_ex(session.get(), buffer.data(), buffer.size(), done);
        };
        co_return co_await repeat(read, patience);
    }

    std::size_t readNow(std::span<char> buffer) override {
        ERR_clear_error();
        std::size_t done = 0;
        const int result = SSL_read_ex(session.get(), buffer.data(), buffer.size(), &done);
        const int condition = SSL_get_error(session.get(), result);
        broken = broken || condition == SSL_ERROR_SSL || condition == SSL_ERROR_SYSCALL;
        return result == 1 ? done : 0;
    }

    Awaitable<std::size_t> writeSome(std::string_view bytes, Duration patience) override {
        const auto write = [this, bytes](std::size_t* done) {
            return SSL_write_ex(session.get(), bytes.data(), bytes.size(), done);
        };
        co_return co_await repeat(write, patience);
    }

    void closeWriting() override {
        ERR_clear_error();
        if (SSL_is_init_finished(session.get()) == 1 && !broken) {
            (void)SSL_shutdown(session.get());  // a farewell that does not fit is left out
        }
        connection->shutDownWriting();
    }

    Socket& socket() override { return *connection; }

private:
    // Calls until it is done, waiting for the socket as TLS asks for it.
    template <typename Call>
    Awaitable<std::size_t> repeat(Call call, Duration patience) {
        for (;;) {
            // The queue of errors belongs to the thread, which has many connections.
            ERR_clear_error();
            std::size_t done = 0;
            const int result = call(&done);
            if (result == 1) {
                co_return done;
            }
            const int condition = SSL_get_error(session.get(), result);
            if (condition == SSL_ERROR_ZERO_RETURN) {
                co_return 0;
            }
            if (condition != SSL_ERROR_WANT_READ && condition != SSL_ERROR_WANT_WRITE) {
                broken = true;
                throw ConnectionLost("TLS: " + reasonOf(ERR_get_error()));
            }
            const bool ready = co_await connection->wait(
                condition == SSL_ERROR_WANT_READ ? Direction::In : Direction::Out, patience);
            if (!ready) {
                throw TooSlow("TLS: nothing went over the connection for too long");
            }
        }
    }

    const std::unique_ptr<Socket> connection;
    const SslSession session;  // goes first: it refers to the socket
    bool broken = false;
};

}  // namespace

std::unique_ptr<Stream> makeTlsStream(std::unique_ptr<Socket> socket, SSL_CTX* context) {
    return std::make_unique<TlsStream>(std::move(socket), context);
}

}  // namespace kolvan::server::http
