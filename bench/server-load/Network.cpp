#include "bench/server-load/Network.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <netinet/in.h>
#include <sys/resource.h>

namespace kolvan::bench {

namespace {

namespace asio = boost::asio;
namespace ssl = boost::asio::ssl;
using asio::ip::tcp;

constexpr std::uint32_t kOrigins = 16;

tcp::socket openSocket(const asio::any_io_executor& executor, std::size_t origin) {
    tcp::socket socket(executor, tcp::v4());
    // The port is chosen when it connects: the same one may be in use towards another server.
    const asio::detail::socket_option::boolean<IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT> portLater(true);
    socket.set_option(portLater);
    const auto host = static_cast<std::uint32_t>(1 + origin % kOrigins);
    socket.bind({asio::ip::address_v4((127U << 24U) | host), 0});
    return socket;
}

Awaitable<tcp::socket> connected(const asio::any_io_executor& executor, std::uint16_t port,
                                 std::size_t origin) {
    tcp::socket socket = openSocket(executor, origin);
    co_await socket.async_connect({asio::ip::address_v4::loopback(), port}, asio::use_awaitable);
    socket.set_option(tcp::no_delay(true));
    co_return socket;
}

template <typename Stream>
Awaitable<std::string> converse(Stream& stream, const Request& request) {
    co_await asio::async_write(stream, request, asio::use_awaitable);
    std::string answer;
    boost::system::error_code error;
    co_await asio::async_read(stream, asio::dynamic_buffer(answer),
                              asio::redirect_error(asio::use_awaitable, error));
    if (error != asio::error::eof) {
        throw boost::system::system_error(error);
    }
    co_return answer;
}

template <typename Stream>
Awaitable<void> sendAgainAndAgain(Stream& stream, const Request& beginning,
                                  asio::const_buffer piece, const std::function<bool()>& goesOn) {
    co_await asio::async_write(stream, beginning, asio::use_awaitable);
    while (goesOn()) {
        co_await asio::async_write(stream, asio::buffer(piece), asio::use_awaitable);
    }
}

std::string bodyOf(const std::string& answer) {
    const std::size_t end = answer.find("\r\n\r\n");
    if (!answer.starts_with("HTTP/1.1 2") || end == std::string::npos) {
        throw std::runtime_error("not answered as expected: " + answer.substr(0, 1000));
    }
    return answer.substr(end + 4);
}

}  // namespace

Network::Network(asio::any_io_executor anyExecutor, std::uint16_t serverPort, bool tls)
    : ownExecutor(std::move(anyExecutor)),
      port(serverPort),
      encrypted(tls),
      context(ssl::context::tls_client) {}

Awaitable<std::string> Network::exchange(Request request, std::size_t origin) {
    tcp::socket socket = co_await connected(ownExecutor, port, origin);
    if (!encrypted) {
        co_return bodyOf(co_await converse(socket, request));
    }
    ssl::stream<tcp::socket> stream(std::move(socket), context);
    co_await stream.async_handshake(ssl::stream_base::client, asio::use_awaitable);
    co_return bodyOf(co_await converse(stream, request));
}

Awaitable<void> Network::breakOff(Request beginning, asio::const_buffer piece,
                                  std::function<bool()> goesOn, std::size_t origin) {
    tcp::socket socket = co_await connected(ownExecutor, port, origin);
    if (!encrypted) {
        co_await sendAgainAndAgain(socket, beginning, piece, goesOn);
        co_return;
    }
    ssl::stream<tcp::socket> stream(std::move(socket), context);
    co_await stream.async_handshake(ssl::stream_base::client, asio::use_awaitable);
    co_await sendAgainAndAgain(stream, beginning, piece, goesOn);
}

std::string headOf(std::string_view method, std::string_view target, std::string_view contentType,
                   std::size_t bodySize) {
    std::string head(method);
    head.append(" ").append(target).append(
        " HTTP/1.1\r\nHost: bench\r\nConnection: close\r\nContent-Type: ");
    head.append(contentType).append("\r\nContent-Length: ").append(std::to_string(bodySize));
    return head.append("\r\n\r\n");
}

void allowManyDescriptors() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        throw std::system_error(errno, std::generic_category(), "getrlimit");
    }
    limit.rlim_cur = limit.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        throw std::system_error(errno, std::generic_category(), "setrlimit");
    }
}

void Failures::add(const char* reason) {
    if (count == 0) {
        first = reason;
    }
    ++count;
}

}  // namespace kolvan::bench
