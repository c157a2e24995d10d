#pragma once

#include "basekit2/UniqueFd.h"
#include "companions/server/accounts/Logins.h"
#include "companions/server/base/Clock.h"
#include "companions/server/base/DataDirectory.h"
#include "companions/server/http/Awaitable.h"
#include "companions/server/http/TlsIdentity.h"

#include <boost/asio/any_io_executor.hpp>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace kolvan::server {

/// What a server is made of.
struct ServiceSettings {
    std::shared_ptr<http::TlsIdentity> identity;  ///< null for plain connections

    /// How agents and people reach the server, without a slash at the end; empty: as an
    /// administrator has set it, or as it listens.
    std::string publicUrl = {};

    /// Takes a line for the operator, from any thread.
    std::function<void(std::string_view)> log = [](std::string_view) {};
};

/// The server: all rooms put together on one data directory.
///
/// Threads: that of the executor, which runs one thing at a time, except where said otherwise.
class Service {
public:
    /// Opens what is kept. @param data, clock outlive this
    /// @throws StoreError, std::system_error
    Service(const boost::asio::any_io_executor& executor, const DataDirectory& data,
            const Clock& clock, ServiceSettings settings);

    /// @pre `stop` has returned, or nothing was started
    ~Service();

    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    /// Begins to serve on a listening socket, see `http::Server::listen`.
    void listen(basekit2::UniqueFd socket);

    /// Begins what is done again and again: looks for what other processes have changed, for agents
    /// that are lost, and removes what nobody needs any more.
    void startChores();

    /// Ends the chores. Those of a server that is being replaced end before its polls are let go
    /// of: to it, its agents would be lost.
    http::Awaitable<void> stopChores();

    /// Stops accepting, answers held polls so that their agents ask again, and waits for what is
    /// being transferred. @return how many connections had to be broken off when the patience was
    /// over
    http::Awaitable<std::size_t> stop(std::chrono::steady_clock::duration patience);

    /// Lets a `stop` that is under way be patient for no longer than this from now on.
    void hurry(std::chrono::steady_clock::duration patience);

    /// Logins and the first one's code. Any thread.
    Logins& logins();

    /// How agents and people reach the server, when somebody has said so; otherwise empty.
    const std::string& publicUrl() const;

private:
    struct Parts;
    const std::unique_ptr<Parts> parts;
};

}  // namespace kolvan::server
