#pragma once

#include <httplib.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace kolvan::test {

/// Threads for the connections of a server, started as they are needed.
///
/// A held poll occupies its thread for as long as it is held, and an agent uploads all files of a
/// collection at once. A pool of fixed size would let the former starve the latter.
class ConnectionThreads : public httplib::TaskQueue {
public:
    /// @param limit most threads at once; further connections wait for a free one
    explicit ConnectionThreads(std::size_t limit) : limit(limit) {}

    /// bool where the library wants to hear whether the connection was taken, void in its older
    /// versions, which do not ask: the override has to return the same.
    using Taken = decltype(std::declval<httplib::TaskQueue&>().enqueue({}));

    /// Serves the connection as soon as a thread is free. Every connection is taken.
    Taken enqueue(std::function<void()> connection) override;

    /// Serves what was accepted already, then ends all threads. Called by the owning server.
    void shutdown() override;

private:
    void run();

    const std::size_t limit;
    std::vector<std::thread> threads;  // touched by the accepting thread only
    std::mutex mutex;                  // guards connections, idle and ended
    std::condition_variable changed;
    std::deque<std::function<void()>> connections;
    std::size_t idle = 0;
    bool ended = false;
};

}  // namespace kolvan::test
