#include "companions/server/api/EventRoutes.h"

#include "companions/server/api/CollectionFollower.h"
#include "companions/server/api/Listeners.h"
#include "companions/server/api/ProfileViews.h"
#include "companions/server/http/OnPool.h"

#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <atomic>
#include <memory>
#include <string>
#include <utility>

namespace kolvan::server::api {

namespace {

namespace asio = boost::asio;

using http::Awaitable;
using http::Response;

/// Wakes the coroutine that waits at it. It is shared with those who ring, who may do so until
/// after the coroutine has gone.
///
/// Threads: the network thread, except for `ringFromAnywhere`.
class Bell : public std::enable_shared_from_this<Bell> {
public:
    explicit Bell(const asio::any_io_executor& executor) : timer(executor) {}

    /// Rings for the last time.
    void end() {
        over = true;
        ring();
    }

    bool ended() const { return over; }

    void ringFromAnywhere() {
        // One at a time: output may come much faster than a listener looks.
        if (!posted.exchange(true)) {
            asio::post(timer.get_executor(), [self = shared_from_this()] {
                self->posted = false;
                self->ring();
            });
        }
    }

    /// Waits until it is rung, or has been since the last wait.
    /// @return false when the time was over first
    Awaitable<bool> wait(std::chrono::steady_clock::duration patience) {
        if (!rung) {
            timer.expires_after(patience);
            boost::system::error_code ignored;  // `rung` tells
            co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
        }
        co_return std::exchange(rung, false);
    }

private:
    void ring() {
        rung = true;
        timer.cancel();
    }

    asio::steady_timer timer;
    std::atomic<bool> posted = false;
    bool rung = false;
    bool over = false;
};

}  // namespace

Awaitable<void> sendEvents(const Surroundings& parts, CollectionId collection, EventPosition from,
                           http::BodyWriter& writer,
                           std::chrono::steady_clock::duration signOfLife) {
    const auto bell = std::make_shared<Bell>(co_await asio::this_coro::executor);
    writer.onEnd([bell] { bell->end(); });
    const auto subscription =
        parts.store.wakeUps().onCollection(collection, [bell] { bell->ringFromAnywhere(); });
    CollectionFollower follower(parts, collection, std::move(from));
    const auto look = [&follower] { return follower.look(); };
    while (!bell->ended()) {
        News news = co_await http::onPool(parts.threads, look);
        if (news.profile) {
            news.events += follower.tellTop(co_await parts.views.makeTop(*news.profile));
        }
        if (!co_await writer.write(news.events) || news.ended) {
            co_return;
        }
        // A start becomes one that was not confirmed by the time alone: so there is a look after a
        // sign of life, too.
        if (!news.more && !co_await bell->wait(signOfLife) && !co_await writer.write(":\n\n")) {
            co_return;
        }
    }
}

void addEventRoutes(Api& api, http::Router& router) {
    const Surroundings& parts = api.parts();
    const auto listeners = std::make_shared<Listeners>();
    api.add(
        router, "GET", "/api/v1/collections/{collection}/events", Permission::Look,
        [&parts, listeners](http::Request& request, const Caller& caller) -> Awaitable<Response> {
            const auto find = [&] {
                return shownCollection(parts, request.place("collection")).collection;
            };
            const Collection found = co_await http::onPool(parts.threads, find);
            // What is no id of ours is of another server's life, or of nobody's: all is sent.
            const EventPosition from =
                EventPosition::fromText(request.field("Last-Event-ID").value_or(""))
                    .value_or(EventPosition{});
            if (from.stage == EventPosition::Stage::Ended && from.start == found.start) {
                co_return http::noContentResponse();  // tells browsers not to come back once more
            }
            co_return http::eventsResponse(
                [&parts, id = found.id, from, seat = listeners->take(caller.actor.name)](
                    http::BodyWriter& writer) { return sendEvents(parts, id, from, writer); });
        });
}

}  // namespace kolvan::server::api
