#include "companions/server/api/EndOfAccess.h"

#include "companions/server/http/OnPool.h"
#include "companions/server/store/StoreError.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/this_coro.hpp>

#include <atomic>
#include <functional>
#include <memory>
#include <string_view>
#include <utility>
#include <variant>

namespace kolvan::server::api {

namespace {

namespace asio = boost::asio;

using http::Awaitable;

/// Tells a stream that it is over. It is shared with looks at the store that may still be under way
/// when the stream has gone.
///
/// Threads: the network thread, except for `look`.
class StreamEnd : public std::enable_shared_from_this<StreamEnd> {
public:
    StreamEnd(asio::any_io_executor network, asio::thread_pool& pool, std::function<bool()> goesOn,
              std::function<void()> whenEnded)
        : executor(std::move(network)),
          threads(pool),
          lasts(std::move(goesOn)),
          ended(std::move(whenEnded)) {}

    void tell() {
        if (ended) {
            std::exchange(ended, nullptr)();
        }
    }

    /// Nobody is told from now on.
    void forget() { ended = nullptr; }

    /// Finds out, on the pool, whether the access has ended. Any thread.
    void look() {
        // Each look begins after the last change that has asked for one.
        if (!asked.exchange(true)) {
            asio::post(threads, [self = shared_from_this()] {
                self->asked = false;
                if (self->isOver()) {
                    asio::post(self->executor, [self] { self->tell(); });
                }
            });
        }
    }

private:
    bool isOver() const {
        try {
            return !lasts();
        } catch (const StoreError&) {
            return false;  // the next write asks again, and fails where that fails
        }
    }

    const asio::any_io_executor executor;
    asio::thread_pool& threads;
    const std::function<bool()> lasts;
    std::atomic<bool> asked = false;
    std::function<void()> ended;
};

/// Writes as long as the access lasts.
class WriterWithAccess final : public http::BodyWriter {
public:
    WriterWithAccess(asio::any_io_executor network, WakeUps& whatWakes, asio::thread_pool& pool,
                     const std::function<bool()>& goesOn, http::BodyWriter& connection)
        : executor(std::move(network)),
          wakeUps(whatWakes),
          threads(pool),
          lasts(goesOn),
          output(connection) {}

    ~WriterWithAccess() override {
        if (end) {
            end->forget();
        }
    }

    WriterWithAccess(const WriterWithAccess&) = delete;
    WriterWithAccess& operator=(const WriterWithAccess&) = delete;

    Awaitable<bool> write(std::string_view bytes) override {
        // Sessions also end by the time alone, of which nobody is woken.
        // A variable of its own: as the condition itself, GCC 12 makes a trap of it.
        const bool goesOn = co_await http::onPool(threads, std::cref(lasts));
        if (!goesOn) {
            co_return false;
        }
        co_return co_await output.write(bytes);
    }

    void onEnd(std::function<void()> ended) override {
        end = std::make_shared<StreamEnd>(executor, threads, lasts, std::move(ended));
        output.onEnd([shared = end] { shared->tell(); });
        subscription = wakeUps.onEndOfAccess([shared = end] { shared->look(); });
        end->look();  // what has ended before woke nobody here
    }

private:
    const asio::any_io_executor executor;
    WakeUps& wakeUps;
    asio::thread_pool& threads;
    const std::function<bool()>& lasts;
    http::BodyWriter& output;
    std::shared_ptr<StreamEnd> end;
    std::unique_ptr<Subscription> subscription;
};

Awaitable<void> produceWithAccess(WakeUps& wakeUps, asio::thread_pool& threads,
                                  const std::function<bool()>& lasts,
                                  const http::StreamBody& produce, http::BodyWriter& connection) {
    WriterWithAccess writer(co_await asio::this_coro::executor, wakeUps, threads, lasts,
                            connection);
    co_await produce(writer);
}

}  // namespace

void endWithAccess(WakeUps& wakeUps, asio::thread_pool& threads, const std::function<bool()>& lasts,
                   http::Response& response) {
    if (auto* const file = std::get_if<http::FileBody>(&response.body)) {
        file->mayGoOn = lasts;
    } else if (auto* const stream = std::get_if<http::StreamBody>(&response.body)) {
        response.body = http::StreamBody([&wakeUps, &threads, lasts, produce = std::move(*stream)](
                                             http::BodyWriter& connection) {
            return produceWithAccess(wakeUps, threads, lasts, produce, connection);
        });
    }
}

}  // namespace kolvan::server::api
