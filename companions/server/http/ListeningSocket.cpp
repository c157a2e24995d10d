#include "companions/server/http/ListeningSocket.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace kolvan::server::http {
namespace {

constexpr int kFirstInherited = 3;  // SD_LISTEN_FDS_START

struct AddressesDeleter {
    void operator()(addrinfo* addresses) const noexcept { ::freeaddrinfo(addresses); }
};

// Port 0 and an empty host for addresses of other families.
struct Address {
    std::string host;
    unsigned port = 0;
    bool bracketed = false;
};

Address read(const sockaddr_storage& storage) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    Address address;
    if (storage.ss_family == AF_INET) {
        sockaddr_in four{};
        std::memcpy(&four, &storage, sizeof four);
        (void)::inet_ntop(AF_INET, &four.sin_addr, text.data(), text.size());  // it fits
        address = {text.data(), ntohs(four.sin_port), false};
    } else if (storage.ss_family == AF_INET6) {
        sockaddr_in6 six{};
        std::memcpy(&six, &storage, sizeof six);
        (void)::inet_ntop(AF_INET6, &six.sin6_addr, text.data(), text.size());  // it fits
        address = {text.data(), ntohs(six.sin6_port), true};
    }
    return address;
}

sockaddr* generic(sockaddr_storage& storage) {
    return reinterpret_cast<sockaddr*>(&storage);
}

Address ownAddress(int descriptor, sockaddr_storage& storage) {
    socklen_t length = sizeof storage;
    if (::getsockname(descriptor, generic(storage), &length) != 0) {
        throw std::system_error(errno, std::generic_category(), "getsockname");
    }
    return read(storage);
}

std::optional<long> numberFromEnvironment(const char* name) {
    const char* text = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): before any thread
    const std::string_view value = text == nullptr ? "" : text;
    long number = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
    if (value.empty() || error != std::errc() || end != value.data() + value.size()) {
        return std::nullopt;
    }
    return number;
}

void checkListening(int descriptor) {
    int listening = 0;
    socklen_t length = sizeof listening;
    if (::getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length) != 0 ||
        listening == 0) {
        throw std::runtime_error("Descriptor " + std::to_string(descriptor) +
                                 " was passed as a listening socket and is none");
    }
}

}  // namespace

basekit2::UniqueFd listenOn(const std::string& host, unsigned port) {
    const std::string name = host + " port " + std::to_string(port);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    addrinfo* found = nullptr;
    const int result = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    const std::unique_ptr<addrinfo, AddressesDeleter> address(found);
    if (result != 0) {
        throw std::runtime_error("Cannot listen on " + name + ": " + ::gai_strerror(result));
    }
    basekit2::UniqueFd socket(
        ::socket(address->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int on = 1;
    if (!socket ||
        // A server that starts again must not wait for the connections of the one before it.
        ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(socket.get(), address->ai_addr, address->ai_addrlen) != 0 ||
        ::listen(socket.get(), SOMAXCONN) != 0) {
        throw std::runtime_error("Cannot listen on " + name + ": " +
                                 std::generic_category().message(errno));
    }
    return socket;
}

std::vector<basekit2::UniqueFd> inheritedSockets() {
    const std::optional<long> process = numberFromEnvironment("LISTEN_PID");
    const std::optional<long> count = numberFromEnvironment("LISTEN_FDS");
    for (const char* name : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"}) {
        (void)::unsetenv(name);  // NOLINT(concurrency-mt-unsafe): before any thread; cannot fail
    }
    std::vector<basekit2::UniqueFd> sockets;
    if (process != ::getpid() || !count || *count > 1024) {
        return sockets;
    }
    for (int number = kFirstInherited; number < kFirstInherited + *count; ++number) {
        checkListening(number);
        if (::fcntl(number, F_SETFD, FD_CLOEXEC) != 0) {
            throw std::system_error(errno, std::generic_category(), "fcntl");
        }
        sockets.emplace_back(number);
    }
    return sockets;
}

std::string localAddress(int descriptor) {
    sockaddr_storage storage{};
    const Address address = ownAddress(descriptor, storage);
    if (storage.ss_family == AF_UNIX) {
        sockaddr_un path{};
        std::memcpy(&path, &storage, sizeof path);
        return {path.sun_path, ::strnlen(path.sun_path, sizeof path.sun_path)};
    }
    return (address.bracketed ? '[' + address.host + ']' : address.host) + ':' +
           std::to_string(address.port);
}

std::string peerAddress(int descriptor) {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    if (::getpeername(descriptor, generic(storage), &length) != 0) {
        return {};  // it has gone already
    }
    return read(storage).host;
}

unsigned localPort(int descriptor) {
    sockaddr_storage storage{};
    return ownAddress(descriptor, storage).port;
}

}  // namespace kolvan::server::http
