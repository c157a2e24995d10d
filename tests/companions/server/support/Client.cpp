#include "tests/companions/server/support/Client.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace kolvan::test {
namespace {

constexpr timeval kDeadline{120, 0};  // only ever fails a test

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return text;
}

}  // namespace

Client::Client(unsigned port) : socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (!socket ||
        ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &kDeadline, sizeof kDeadline) != 0 ||
        ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail("connect");
    }
}

bool Client::send(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t length = ::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (length < 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(length));
    }
    return true;
}

bool Client::receive() {
    std::array<char, 64 * 1024> piece;
    const ssize_t length = ::recv(socket.get(), piece.data(), piece.size(), 0);
    if (length < 0 && errno == EAGAIN) {
        fail("the server says nothing");
    }
    if (length <= 0) {
        return false;
    }
    received.append(piece.data(), static_cast<std::size_t>(length));
    return true;
}

std::optional<std::string> Client::readTo(std::string_view text) {
    std::size_t found = 0;
    while ((found = received.find(text)) == std::string::npos) {
        if (!receive()) {
            return std::nullopt;
        }
    }
    std::string before = received.substr(0, found);
    received.erase(0, found + text.size());
    return before;
}

std::optional<std::string> Client::take(std::size_t length) {
    while (received.size() < length) {
        if (!receive()) {
            return std::nullopt;
        }
    }
    std::string taken = received.substr(0, length);
    received.erase(0, length);
    return taken;
}

ReceivedResponse Client::readResponse(bool headOnly) {
    ReceivedResponse response;
    std::string head;
    do {
        const std::optional<std::string> text = readTo("\r\n\r\n");
        if (!text) {
            return response;
        }
        head = *text + "\r\n";
        response.status = std::stoi(head.substr(head.find(' ') + 1));
    } while (response.status == 100);
    for (std::size_t begin = head.find("\r\n") + 2; begin < head.size();) {
        const std::size_t end = head.find("\r\n", begin);
        const std::size_t colon = head.find(": ", begin);
        response.fields[lower(head.substr(begin, colon - begin))] =
            head.substr(colon + 2, end - colon - 2);
        begin = end + 2;
    }
    if (headOnly || response.status == 204) {
        response.complete = true;
    } else if (response.fields.count("content-length") != 0) {
        const std::optional<std::string> body =
            take(std::stoull(response.fields["content-length"]));
        response.complete = body.has_value();
        response.body = body.value_or(received);
    } else if (response.fields["transfer-encoding"] == "chunked") {
        for (;;) {
            const std::optional<std::string> length = readTo("\r\n");
            const std::optional<std::string> chunk =
                length ? take(std::stoull(*length, nullptr, 16) + 2) : std::nullopt;
            if (!chunk) {
                break;
            }
            response.body += chunk->substr(0, chunk->size() - 2);
            if (chunk->size() == 2) {
                response.complete = true;
                break;
            }
        }
    } else {
        response.body = readAll();
        response.complete = true;
    }
    return response;
}

std::string Client::readAll() {
    while (receive()) {
    }
    return std::exchange(received, {});
}

void Client::endSending() {
    (void)::shutdown(socket.get(), SHUT_WR);  // fails where the server has gone
}

void Client::reset() {
    const linger hard{1, 0};
    if (::setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard) != 0) {
        fail("setsockopt");
    }
    socket.reset();
}

ReceivedResponse Client::get(const std::string& target) {
    (void)send("GET " + target + " HTTP/1.1\r\nHost: test\r\n\r\n");  // the response tells
    return readResponse();
}

}  // namespace kolvan::test
