#include "tests/support/standin/ConnectionThreads.h"

#include <system_error>
#include <utility>

namespace kolvan::test {

ConnectionThreads::Taken ConnectionThreads::enqueue(std::function<void()> connection) {
    bool enoughThreads = false;
    {
        const std::lock_guard lock(mutex);
        connections.push_back(std::move(connection));
        enoughThreads = idle >= connections.size();
    }
    changed.notify_one();
    if (enoughThreads || threads.size() >= limit) {
        return Taken(true);
    }
    try {
        threads.emplace_back([this] { run(); });
    } catch (const std::system_error&) {
        // The system gives no further thread: those that exist serve the connection in its turn.
        if (threads.empty()) {
            throw;
        }
    }
    return Taken(true);
}

void ConnectionThreads::shutdown() {
    {
        const std::lock_guard lock(mutex);
        ended = true;
    }
    changed.notify_all();
    for (std::thread& thread : threads) {
        thread.join();
    }
    threads.clear();
}

void ConnectionThreads::run() {
    std::unique_lock lock(mutex);
    while (true) {
        ++idle;
        changed.wait(lock, [this] { return ended || !connections.empty(); });
        --idle;
        if (connections.empty()) {
            return;
        }
        const std::function<void()> connection = std::move(connections.front());
        connections.pop_front();
        lock.unlock();
        connection();
        lock.lock();
    }
}

}  // namespace kolvan::test
