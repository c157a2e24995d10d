#include "tests/endtoend/FaultyRelay.h"

#include "tests/support/Gate.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <system_error>
#include <utility>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kolvan::test {

namespace {

// A longer body is not waited for: its sender may want to be asked for it first.
constexpr std::size_t kLongestBody = 65536;

// Part of an answer that arrives before the connection is reset: more than a head, less than an
// archive.
constexpr std::size_t kPartOfAnswer = 4096;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

basekit2::UniqueFd listenOnLoopback() {
    basekit2::UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(0);
    sockaddr generic{};
    std::memcpy(&generic, &address, sizeof(generic));
    if (!listener || ::bind(listener.get(), &generic, sizeof(generic)) != 0 ||
        ::listen(listener.get(), 1024) != 0) {
        fail("listen");
    }
    return listener;
}

int portOf(int listener) {
    sockaddr_in address{};
    sockaddr generic{};
    socklen_t length = sizeof(generic);
    if (::getsockname(listener, &generic, &length) != 0) {
        fail("getsockname");
    }
    std::memcpy(&address, &generic, sizeof(address));
    return ntohs(address.sin_port);
}

basekit2::UniqueFd connectToLoopback(int port) {
    basekit2::UniqueFd connection(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(port);
    sockaddr generic{};
    std::memcpy(&generic, &address, sizeof(generic));
    if (!connection || ::connect(connection.get(), &generic, sizeof(generic)) != 0) {
        return basekit2::UniqueFd();
    }
    return connection;
}

bool sendAll(int connection, const char* data, std::size_t length) {
    while (length > 0) {
        const ssize_t sent = ::send(connection, data, length, MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        data += sent;
        length -= static_cast<std::size_t>(sent);
    }
    return true;
}

void resetOnClose(int connection) {
    const linger atOnce{1, 0};
    ::setsockopt(connection, SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
}

/// Length of the whole request, as far as its head tells; 0 while the head is incomplete.
std::size_t lengthOf(const std::string& request) {
    const std::size_t headEnd = request.find("\r\n\r\n");
    if (headEnd == std::string::npos) {
        return 0;
    }
    const std::size_t field = request.find("Content-Length: ");
    std::size_t body = 0;
    if (field < headEnd) {
        body = std::strtoul(request.c_str() + field + 16, nullptr, 10);
    }
    return headEnd + 4 + (body <= kLongestBody ? body : 0);
}

/// What a rule sees: the first line and the body.
std::string essenceOf(const std::string& request) {
    return request.substr(0, request.find("\r\n")) + "\n" +
           request.substr(std::min(request.size(), request.find("\r\n\r\n") + 4));
}

}  // namespace

FaultyRelay::FaultyRelay(int serverPort)
    : serverPort(serverPort),
      listener(listenOnLoopback()),
      port(portOf(listener.get())),
      cutEvent(::eventfd(0, EFD_CLOEXEC)),
      acceptor([this] { acceptConnections(); }) {}

FaultyRelay::~FaultyRelay() {
    cut();
    acceptor.join();
    for (std::thread& connection : connections) {
        connection.join();
    }
}

std::string FaultyRelay::endpoint() const {
    return "http://127.0.0.1:" + std::to_string(port);
}

void FaultyRelay::treat(Rule newRule) {
    const std::lock_guard lock(mutex);
    rule = std::move(newRule);
}

void FaultyRelay::release() {
    const std::lock_guard lock(mutex);
    released = true;
    changed.notify_all();
}

bool FaultyRelay::waitForHeld(std::size_t count) const {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, kDeadline, [&] { return held >= count; });
}

void FaultyRelay::cut() {
    const std::lock_guard lock(mutex);
    gone = true;
    changed.notify_all();
    ::eventfd_write(cutEvent.get(), 1);
    // The port refuses from this moment on; the descriptor goes when its thread has ended.
    ::shutdown(listener.get(), SHUT_RDWR);
}

bool FaultyRelay::await(int descriptor) const {
    std::array<pollfd, 2> sources{{{descriptor, POLLIN, 0}, {cutEvent.get(), POLLIN, 0}}};
    while (::poll(sources.data(), sources.size(), -1) < 0 && errno == EINTR) {
    }
    return sources[1].revents == 0;
}

void FaultyRelay::acceptConnections() {
    while (await(listener.get())) {
        basekit2::UniqueFd client(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (client) {
            const int descriptor = client.get();
            resetOnClose(descriptor);
            connections.emplace_back([this, owned = std::make_shared<basekit2::UniqueFd>(
                                                std::move(client))] { serve(std::move(*owned)); });
        }
    }
}

std::string FaultyRelay::readRequest(int client) const {
    std::string request;
    std::array<char, 65536> chunk{};
    while (request.empty() || lengthOf(request) == 0 || request.size() < lengthOf(request)) {
        if (!await(client)) {
            return {};
        }
        const ssize_t length = ::recv(client, chunk.data(), chunk.size(), 0);
        if (length <= 0) {
            return {};
        }
        request.append(chunk.data(), static_cast<std::size_t>(length));
    }
    return request;
}

Treatment FaultyRelay::decide(const std::string& request) {
    std::unique_lock lock(mutex);
    const Rule current = rule;
    lock.unlock();
    const Treatment treatment = current ? current(essenceOf(request)) : Treatment::Pass;
    if (treatment != Treatment::Hold) {
        return treatment;
    }
    lock.lock();
    ++held;
    changed.notify_all();
    changed.wait(lock, [this] { return released || gone; });
    return gone ? Treatment::Reset : Treatment::Pass;
}

void FaultyRelay::passOn(int client, const std::string& request, Treatment treatment) const {
    const basekit2::UniqueFd server = connectToLoopback(serverPort);
    if (!server || !sendAll(server.get(), request.data(), request.size())) {
        return;
    }
    std::size_t answered = 0;
    std::array<char, 65536> chunk{};
    for (;;) {
        std::array<pollfd, 3> sources{
            {{server.get(), POLLIN, 0}, {client, POLLIN, 0}, {cutEvent.get(), POLLIN, 0}}};
        if (::poll(sources.data(), sources.size(), -1) < 0) {
            continue;
        }
        if (sources[2].revents != 0) {
            return;
        }
        const bool isAnswer = sources[0].revents != 0;
        const ssize_t length =
            ::recv(isAnswer ? server.get() : client, chunk.data(), chunk.size(), 0);
        if (length <= 0) {
            break;
        }
        std::size_t count = static_cast<std::size_t>(length);
        if (isAnswer && treatment == Treatment::ResetInAnswer) {
            count = std::min(count, kPartOfAnswer - answered);
        }
        if (!sendAll(isAnswer ? client : server.get(), chunk.data(), count)) {
            return;
        }
        answered += isAnswer ? count : 0;
        if (treatment == Treatment::ResetInAnswer && answered == kPartOfAnswer) {
            return;
        }
    }
    // An orderly end, for which the client is given the chance to read what was sent.
    const linger none{0, 0};
    ::setsockopt(client, SOL_SOCKET, SO_LINGER, &none, sizeof(none));
}

void FaultyRelay::serve(basekit2::UniqueFd client) {
    const std::string request = readRequest(client.get());
    if (request.empty()) {
        return;
    }
    const Treatment treatment = decide(request);
    if (treatment != Treatment::Reset) {
        passOn(client.get(), request, treatment);
    }
}

}  // namespace kolvan::test
