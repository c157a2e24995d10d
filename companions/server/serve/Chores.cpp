#include "companions/server/serve/Chores.h"

#include "companions/server/http/OnPool.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <exception>
#include <iterator>
#include <optional>
#include <utility>

namespace kolvan::server {

namespace asio = boost::asio;

void Chores::start(std::string what, std::chrono::steady_clock::duration every,
                   std::function<void()> work) {
    running.push_back(
        {std::move(what), every, std::move(work), asio::steady_timer(executor), false});
    asio::co_spawn(executor, run(std::prev(running.end())), asio::detached);
}

http::Awaitable<void> Chores::stop() {
    stopping = true;
    for (Chore& chore : running) {
        chore.pause.cancel();
    }
    if (!running.empty()) {
        asio::steady_timer timer(executor, std::chrono::steady_clock::time_point::max());
        allEnded = &timer;
        boost::system::error_code ignored;  // a cancellation is what is waited for
        co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
        allEnded = nullptr;
    }
}

http::Awaitable<void> Chores::run(std::list<Chore>::iterator chore) {
    while (!stopping) {
        co_await doOnce(*chore);
        if (stopping) {
            break;
        }
        chore->pause.expires_after(chore->every);
        boost::system::error_code ignored;  // the loop looks by itself
        co_await chore->pause.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
    }
    running.erase(chore);
    if (running.empty() && allEnded != nullptr) {
        allEnded->cancel();
    }
}

http::Awaitable<void> Chores::doOnce(Chore& chore) {
    std::optional<std::string> failure;
    try {
        co_await http::onPool(threads, std::ref(chore.work));
    } catch (const std::exception& error) {
        failure = error.what();
    }
    if (failure && !chore.failing) {
        log(chore.what + " has failed, and is tried again: " + *failure);
    } else if (!failure && chore.failing) {
        log(chore.what + " works again");
    }
    chore.failing = failure.has_value();
}

}  // namespace kolvan::server
