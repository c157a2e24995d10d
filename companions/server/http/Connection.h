#pragma once

#include "companions/server/http/Awaitable.h"
#include "companions/server/http/Limits.h"
#include "companions/server/http/Router.h"
#include "companions/server/http/Stream.h"
#include "companions/server/http/Traffic.h"

#include <boost/asio/thread_pool.hpp>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace kolvan::server::http {

/// What all connections of a server share. Outlives them.
struct ConnectionSurroundings {
    const Router& router;
    const Limits& limits;
    boost::asio::thread_pool& threads;  ///< for files
    const std::function<void(std::string_view)>& log;
    Traffic& traffic;
};

/// Serves the requests of one connection, one after the other.
///
/// Threads: the network thread.
class Connection {
public:
    virtual ~Connection() = default;

    /// Serves until the connection ends. To be called once.
    virtual Awaitable<void> run() = 0;

    /// Lets the connection end after the request that it is busy with, or that its client is about
    /// to make with it: a client that has just connected would take the end for a failure. A
    /// connection that has had its requests ends at once. Streams are told to end.
    virtual void finish() = 0;

    /// Ends the connection whatever it is doing.
    virtual void abandon() = 0;
};

/// Makes a connection.
/// @param peer address of the other side
/// @param busy true: every request is answered with status 503
std::unique_ptr<Connection> makeConnection(std::unique_ptr<Stream> stream, std::string peer,
                                           bool secure, bool busy,
                                           const ConnectionSurroundings& surroundings);

}  // namespace kolvan::server::http
