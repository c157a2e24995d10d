#include "companions/server/http/Turns.h"

#include "companions/server/http/HttpError.h"

#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

namespace kolvan::server::http {

namespace asio = boost::asio;

/// A coroutine that waits; it is in the list until it is called, or goes.
class Turns::Waiter {
public:
    Waiter(std::list<Waiter*>& everybody, const asio::any_io_executor& executor)
        : timer(executor, asio::steady_timer::time_point::max()),
          line(everybody),
          place(line.insert(line.end(), this)) {}
    ~Waiter() { leave(); }
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;

    void call() {
        leave();
        timer.cancel();
    }

    Awaitable<void> wait() {
        while (!called) {
            boost::system::error_code ignored;  // the cancellation is the call
            co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
        }
    }

private:
    void leave() {
        if (!std::exchange(called, true)) {
            line.erase(place);
        }
    }

    asio::steady_timer timer;  // never expires
    std::list<Waiter*>& line;
    const std::list<Waiter*>::iterator place;
    bool called = false;
};

Awaitable<Turns::Turn> Turns::take() {
    if (!taken) {
        taken = true;
        co_return Turn(*this);
    }
    if (waiters.size() >= most) {
        throw HttpError(503, "Too many ask for this at once. Try again in some seconds.");
    }
    Waiter waiter(waiters, co_await asio::this_coro::executor);
    co_await waiter.wait();
    co_return Turn(*this);
}

void Turns::next() {
    if (waiters.empty()) {
        taken = false;
    } else {
        // The turn passes on without a moment in which somebody else could take it.
        waiters.front()->call();
    }
}

}  // namespace kolvan::server::http
