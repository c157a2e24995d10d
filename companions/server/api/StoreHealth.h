#pragma once

#include "companions/server/base/Clock.h"
#include "companions/server/http/Awaitable.h"
#include "companions/server/http/Turns.h"
#include "companions/server/store/Store.h"

#include <boost/asio/thread_pool.hpp>

#include <chrono>
#include <optional>
#include <string>

namespace kolvan::server::api {

/// Whether the store can be written. Anybody may ask, so that it is tried once a second at most;
/// whoever asks in between gets the same answer.
///
/// Threads: the network thread.
class StoreHealth {
public:
    static constexpr std::chrono::seconds kValidFor{1};

    /// All of it outlives this one.
    StoreHealth(Store& recordStore, const Clock& ownClock, boost::asio::thread_pool& pool)
        : store(recordStore), clock(ownClock), threads(pool) {}

    /// What is wrong, as a sentence for whoever watches; nothing when all is well.
    /// @throws http::HttpError with status 503 when too many wait for an answer
    http::Awaitable<std::optional<std::string>> problem();

private:
    static constexpr std::size_t kMostWaiting = 100;

    bool isFresh() const;
    std::optional<std::string> tryToWrite() const;

    Store& store;
    const Clock& clock;
    boost::asio::thread_pool& threads;

    http::Turns turns{kMostWaiting};
    std::optional<std::chrono::steady_clock::time_point> tried;
    std::optional<std::string> found;
};

}  // namespace kolvan::server::api
