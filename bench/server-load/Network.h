#pragma once

#include "companions/server/http/Awaitable.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/ssl/context.hpp>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::bench {

template <typename Result>
using Awaitable = server::http::Awaitable<Result>;

/// The head of a request, with "Connection: close", and its body in pieces.
using Request = std::vector<boost::asio::const_buffer>;

/// The server that is put under load: a port of 127.0.0.1, and whether it speaks TLS.
class Network {
public:
    /// @param tls which certificate the server has is not looked at
    Network(boost::asio::any_io_executor anyExecutor, std::uint16_t serverPort, bool tls);

    /// Sends one request over a connection of its own, as an agent does, and reads the answer to
    /// the end of the connection.
    /// @param origin requests of different ones come from different addresses. An address has no
    ///     more than 28,000 ports, and one that was used rests for a minute.
    /// @return the body of the answer
    /// @throws boost::system::system_error, and std::runtime_error for a status other than 2xx
    Awaitable<std::string> exchange(Request request, std::size_t origin);

    /// Begins a request over a connection of its own, sends a piece of its body again and again for
    /// as long as `goesOn` says so, and ends the connection there.
    /// @param origin as above
    /// @throws boost::system::system_error
    Awaitable<void> breakOff(Request beginning, boost::asio::const_buffer piece,
                             std::function<bool()> goesOn, std::size_t origin);

    const boost::asio::any_io_executor& executor() const { return ownExecutor; }

private:
    const boost::asio::any_io_executor ownExecutor;
    const std::uint16_t port;
    const bool encrypted;
    boost::asio::ssl::context context;
};

/// The head of a request.
std::string headOf(std::string_view method, std::string_view target, std::string_view contentType,
                   std::size_t bodySize);

/// Raises the soft limit of descriptors to the hard one.
void allowManyDescriptors();

/// What has gone wrong, with its reason as of the first time.
struct Failures {
    std::size_t count = 0;
    std::string first;

    void add(const char* reason);
};

}  // namespace kolvan::bench
