#pragma once

#include "companions/server/http/Awaitable.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <string>
#include <string_view>

namespace kolvan::server {

/// Work that is done again and again, on the pool, each on its own beat.
///
/// A chore that fails is tried again at its next turn. The operator hears of the first failure and
/// of the first success after it: what goes wrong each second is not said each second.
///
/// Threads: that of the executor.
class Chores {
public:
    using Log = std::function<void(std::string_view)>;

    /// @param pool where the work is done; outlives this
    Chores(boost::asio::any_io_executor anyExecutor, boost::asio::thread_pool& pool, Log ownLog)
        : executor(std::move(anyExecutor)), threads(pool), log(std::move(ownLog)) {}

    /// @pre `stop` has returned, or nothing was started
    ~Chores() = default;

    Chores(const Chores&) = delete;
    Chores& operator=(const Chores&) = delete;

    /// Begins a chore. @param what it does, as the subject of a sentence: "Looking for changes"
    /// @param every from the end of one turn to the beginning of the next; the first comes at once
    void start(std::string what, std::chrono::steady_clock::duration every,
               std::function<void()> work);

    /// Ends all chores, and waits for those that are at work.
    http::Awaitable<void> stop();

private:
    struct Chore {
        std::string what;
        std::chrono::steady_clock::duration every;
        std::function<void()> work;
        boost::asio::steady_timer pause;
        bool failing = false;
    };

    http::Awaitable<void> run(std::list<Chore>::iterator chore);
    http::Awaitable<void> doOnce(Chore& chore);

    const boost::asio::any_io_executor executor;
    boost::asio::thread_pool& threads;
    const Log log;
    std::list<Chore> running;
    boost::asio::steady_timer* allEnded = nullptr;  // of `stop`, while it waits
    bool stopping = false;
};

}  // namespace kolvan::server
