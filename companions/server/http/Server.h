#pragma once

#include "basekit2/UniqueFd.h"
#include "companions/server/http/Awaitable.h"
#include "companions/server/http/Limits.h"
#include "companions/server/http/Router.h"
#include "companions/server/http/TlsIdentity.h"
#include "companions/server/http/Traffic.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/thread_pool.hpp>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>

namespace kolvan::server::http {

/// How a server treats its clients.
struct ServerSettings {
    Limits limits;
    std::shared_ptr<TlsIdentity> identity;  ///< null for plain connections

    /// Takes one line, without its end, about something that an operator should know.
    std::function<void(std::string_view)> log = [](std::string_view) {};

    /// Where the server counts what goes through it.
    std::shared_ptr<Traffic> traffic = std::make_shared<Traffic>();
};

/// Accepts connections and serves each one in a coroutine of its own.
///
/// Threads: those of the executor, which runs one thing at a time.
class Server {
public:
    /// @param executor where everything happens
    /// @param threads where files are read; outlives the server
    /// @param router complete; outlives the server
    Server(const boost::asio::any_io_executor& executor, boost::asio::thread_pool& threads,
           const Router& router, ServerSettings settings);

    /// @pre `stop` has returned, or the executor's context will not run any more
    ~Server();

    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Begins to accept on a listening socket. It may have been inherited, and belong to other
    /// processes too: it is closed at the end and never shut down, so that whoever has it can go on
    /// with the connections that wait in it.
    void listen(basekit2::UniqueFd socket);

    /// Stops accepting and waits until all connections have ended: those that wait between two
    /// requests end at once, the others after the answer to the request that they are at. Whoever
    /// holds answers back has to let go of them. Connections that are still there when the patience
    /// is over are broken off.
    /// @return how many had to be broken off
    Awaitable<std::size_t> stop(std::chrono::steady_clock::duration patience);

    /// Lets a `stop` that is under way be patient for no longer than this from now on.
    void hurry(std::chrono::steady_clock::duration patience);

    /// How many connections there are.
    std::size_t connections() const;

private:
    class Implementation;
    const std::shared_ptr<Implementation> implementation;  // shared with its coroutines
};

}  // namespace kolvan::server::http
