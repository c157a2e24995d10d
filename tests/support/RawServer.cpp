#include "tests/support/RawServer.h"

#include "tests/support/Gate.h"

#include <openssl/ssl.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>

namespace kolvan::test {

namespace {

constexpr char kBlankLine[] = "\r\n\r\n";

struct SslContextFree {
    void operator()(SSL_CTX* context) const noexcept { SSL_CTX_free(context); }
};

struct SslFree {
    void operator()(SSL* ssl) const noexcept { SSL_free(ssl); }
};

void require(bool succeeded, const char* what) {
    if (!succeeded) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

// A test's own threads take no signals: those belong to what is tested. OpenSSL's writes would
// also raise SIGPIPE.
void blockSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

basekit2::UniqueFd bindAnyPort(unsigned& port) {
    basekit2::UniqueFd bound(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    require(static_cast<bool>(bound), "socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    require(::bind(bound.get(), generic, length) == 0, "bind");
    require(::getsockname(bound.get(), generic, &length) == 0, "getsockname");
    port = ntohs(address.sin_port);
    return bound;
}

std::string loopback(unsigned port) {
    return "127.0.0.1:" + std::to_string(port);
}

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return text;
}

std::size_t announcedLength(const std::string& head) {
    const std::string value = headerOf(head, "Content-Length");
    return value.empty() ? 0 : std::stoul(value);
}

}  // namespace

bool RawConnection::drip(std::string_view bytes) {
    for (const char& byte : bytes) {
        if (!send({&byte, 1})) {
            return false;
        }
    }
    return true;
}

void RawConnection::waitForPeerEnd() {
    while (!receive().empty()) {
    }
}

struct RawServer::TlsContext {
    explicit TlsContext(const ServerIdentity& identity)
        : context(SSL_CTX_new(TLS_server_method())) {
        if (!context ||
            SSL_CTX_use_certificate_chain_file(context.get(), identity.certificateFile.c_str()) !=
                1 ||
            SSL_CTX_use_PrivateKey_file(context.get(), identity.keyFile.c_str(),
                                        SSL_FILETYPE_PEM) != 1) {
            throw std::runtime_error("cannot use the identity " + identity.certificateFile);
        }
    }

    std::unique_ptr<SSL_CTX, SslContextFree> context;
};

class RawServer::Connection : public RawConnection {
public:
    Connection(RawServer& server, basekit2::UniqueFd connected, std::size_t position)
        : owner(server), socket(std::move(connected)), position(position) {
        const int noDelay = 1;
        (void)::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof(noDelay));
    }

    /// @return false when the client did not want to go on
    bool shakeHands() {
        if (!owner.tls) {
            return true;
        }
        ssl.reset(SSL_new(owner.tls->context.get()));
        return ssl && SSL_set_fd(ssl.get(), socket.get()) == 1 && SSL_accept(ssl.get()) == 1;
    }

    /// Ends the connection from another thread; the script notices it at its next call.
    void abort() const { (void)::shutdown(socket.get(), SHUT_RDWR); }

    /// May block until the client makes room for the notice.
    void sayGoodbye() {
        if (ssl && closeNotice) {
            (void)SSL_shutdown(ssl.get());  // a client that has gone does not miss it
        }
        ssl.reset();
    }

    void close() { socket.reset(); }

    bool isOpen() const { return static_cast<bool>(socket); }

    std::size_t number() const override { return position; }

    std::string receive() override {
        if (!unread.empty()) {
            return std::exchange(unread, {});
        }
        char buffer[65536];
        ssize_t got = 0;
        do {
            got = ssl ? SSL_read(ssl.get(), buffer, static_cast<int>(sizeof(buffer)))
                      : ::recv(socket.get(), buffer, sizeof(buffer), 0);
        } while (!ssl && got < 0 && errno == EINTR);
        return got > 0 ? std::string(buffer, static_cast<std::size_t>(got)) : std::string();
    }

    bool send(std::string_view bytes) override {
        while (!bytes.empty()) {
            const ssize_t sent =
                ssl ? SSL_write(ssl.get(), bytes.data(), static_cast<int>(bytes.size()))
                    : ::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0 && (ssl || errno != EINTR)) {
                return false;
            }
            bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
        }
        return true;
    }

    std::string readHead() override {
        std::string head = readUnrecordedHead();
        owner.record(head);
        return head;
    }

    std::string readRequest() override {
        std::string request = readUnrecordedHead();
        if (!headerOf(request, "Expect").empty()) {
            (void)send("HTTP/1.1 100 Continue\r\n\r\n");
        }
        const std::size_t whole = request.size() + announcedLength(request);
        while (request.size() < whole) {
            const std::string chunk = receive();
            if (chunk.empty()) {
                break;
            }
            request += chunk;
        }
        if (request.size() > whole) {
            unread = request.substr(whole);
            request.resize(whole);
        }
        owner.record(request);
        return request;
    }

    void halfClose() override { (void)::shutdown(socket.get(), SHUT_WR); }

    void resetAtEnd() override {
        const linger none{1, 0};
        (void)::setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &none, sizeof(none));
        closeNotice = false;
    }

    void omitCloseNotice() override { closeNotice = false; }

private:
    std::string readUnrecordedHead() {
        std::string head;
        std::size_t end = std::string::npos;
        while ((end = head.find(kBlankLine)) == std::string::npos) {
            const std::string chunk = receive();
            if (chunk.empty()) {
                return head;
            }
            head += chunk;
        }
        end += sizeof(kBlankLine) - 1;
        unread = head.substr(end);
        head.resize(end);
        return head;
    }

    RawServer& owner;
    basekit2::UniqueFd socket;
    std::unique_ptr<SSL, SslFree> ssl;
    std::size_t position;
    std::string unread;  // received behind what was asked for
    bool closeNotice = true;
};

RawServer::RawServer(Script script) : script(std::move(script)) {
    listen();
}

RawServer::RawServer(Script script, const ServerIdentity& identity)
    : script(std::move(script)), tls(std::make_unique<TlsContext>(identity)) {
    listen();
}

RawServer::~RawServer() {
    {
        const std::lock_guard lock(mutex);
        closing = true;
        for (const auto& connection : connections) {
            if (connection->isOpen()) {
                connection->abort();
            }
        }
    }
    // accept(2) returns with an error; the descriptor's number must stay taken until then.
    (void)::shutdown(listener.get(), SHUT_RDWR);
    acceptingThread.join();
    for (std::thread& thread : connectionThreads) {
        thread.join();
    }
}

std::string RawServer::host() const {
    return loopback(port);
}

std::string RawServer::endpoint() const {
    return (tls ? "https://" : "http://") + host();
}

std::vector<std::string> RawServer::requests() const {
    const std::lock_guard lock(mutex);
    return recorded;
}

std::size_t RawServer::acceptedConnections() const {
    const std::lock_guard lock(mutex);
    return connections.size();
}

std::size_t RawServer::endedConnections() const {
    const std::lock_guard lock(mutex);
    return ended;
}

std::size_t RawServer::failedHandshakes() const {
    const std::lock_guard lock(mutex);
    return handshakesFailed;
}

bool RawServer::waitForRequests(std::size_t count) const {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, kDeadline, [&] { return recorded.size() >= count; });
}

bool RawServer::waitForEndedConnections(std::size_t count) const {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, kDeadline, [&] { return ended >= count; });
}

void RawServer::listen() {
    listener = bindAnyPort(port);
    require(::listen(listener.get(), SOMAXCONN) == 0, "listen");
    acceptingThread = std::thread([this] { acceptConnections(); });
}

void RawServer::acceptConnections() {
    blockSignals();
    while (true) {
        basekit2::UniqueFd connected(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!connected && (errno == EINTR || errno == ECONNABORTED)) {
            continue;
        }
        const std::lock_guard lock(mutex);
        if (!connected || closing) {
            return;
        }
        connections.push_back(
            std::make_unique<Connection>(*this, std::move(connected), connections.size()));
        Connection& connection = *connections.back();
        connectionThreads.emplace_back([this, &connection] { serve(connection); });
    }
}

void RawServer::serve(Connection& connection) {
    blockSignals();
    const bool welcome = connection.shakeHands();
    if (welcome) {
        script(connection);
    }
    connection.sayGoodbye();
    const std::lock_guard lock(mutex);
    connection.close();
    handshakesFailed += welcome ? 0 : 1;
    ++ended;
    changed.notify_all();
}

void RawServer::record(const std::string& request) {
    if (request.empty()) {
        return;
    }
    const std::lock_guard lock(mutex);
    recorded.push_back(request);
    changed.notify_all();
}

RefusingPort::RefusingPort() : socket(bindAnyPort(port)) {}

std::string RefusingPort::host() const {
    return loopback(port);
}

std::string httpReply(int status, std::string_view body, std::string_view headers) {
    return "HTTP/1.1 " + std::to_string(status) + " Text\r\n" + std::string(headers) +
           "Content-Length: " + std::to_string(body.size()) + kBlankLine + std::string(body);
}

RawServer::Script answerWith(std::string bytes) {
    return [bytes = std::move(bytes)](RawConnection& connection) {
        (void)connection.readRequest();
        (void)connection.send(bytes);
    };
}

std::string headOf(const std::string& request) {
    return request.substr(0, request.find(kBlankLine) + sizeof(kBlankLine) - 1);
}

std::string bodyOf(const std::string& request) {
    return request.substr(request.find(kBlankLine) + sizeof(kBlankLine) - 1);
}

std::string headerOf(const std::string& request, const std::string& name) {
    const std::string head = headOf(request);
    const std::size_t line = lowerCase(head).find("\r\n" + lowerCase(name) + ": ");
    if (line == std::string::npos) {
        return {};
    }
    const std::size_t begin = line + name.size() + 4;
    return head.substr(begin, head.find("\r\n", begin) - begin);
}

}  // namespace kolvan::test
