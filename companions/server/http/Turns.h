#pragma once

#include "companions/server/http/Awaitable.h"

#include <cstddef>
#include <list>
#include <utility>

namespace kolvan::server::http {

/// Lets one request after the other do what the machine can take once at a time, in the order in
/// which they came. Those who wait take no thread of the pool meanwhile, so that everybody else is
/// served, and there are only so many of them.
///
/// Threads: the network thread. Outlives the coroutines that use it.
class Turns {
public:
    /// The right to go on; its end is the next one's beginning.
    class Turn {
    public:
        explicit Turn(Turns& owner) : turns(&owner) {}
        ~Turn() {
            if (turns != nullptr) {
                turns->next();
            }
        }
        Turn(Turn&& other) noexcept : turns(std::exchange(other.turns, nullptr)) {}
        Turn& operator=(Turn&&) = delete;

    private:
        Turns* turns;  // null in one that was moved from
    };

    /// @param mostWaiting how many may wait beside the one whose turn it is
    explicit Turns(std::size_t mostWaiting) : most(mostWaiting) {}

    Turns(const Turns&) = delete;
    Turns& operator=(const Turns&) = delete;

    /// Waits for a turn.
    /// @throws HttpError with status 503 at once when too many wait already
    Awaitable<Turn> take();

private:
    class Waiter;

    void next();

    const std::size_t most;
    bool taken = false;
    std::list<Waiter*> waiters;  // in their coroutines, the longest waiting first
};

}  // namespace kolvan::server::http
