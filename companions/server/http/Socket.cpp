#include "companions/server/http/Socket.h"

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>

#include <cstdint>

#include <poll.h>
#include <sys/socket.h>

namespace kolvan::server::http {
namespace {

namespace asio = boost::asio;

using boost::system::error_code;

constexpr std::chrono::seconds kLookAgain{1};

bool hasHungUp(int descriptor) {
    pollfd look{descriptor, POLLRDHUP, 0};
    return ::poll(&look, 1, 0) > 0;
}

}  // namespace

struct Socket::State {
    State(const asio::any_io_executor& executor, basekit2::UniqueFd socket)
        : owned(std::move(socket)), stream(executor, owned.get()), timer(executor) {}
    ~State() {
        // `owned` closes it.
        (void)stream.release();
    }

    const basekit2::UniqueFd owned;
    asio::posix::stream_descriptor stream;
    asio::steady_timer timer;
    std::uint64_t waits = 0;  // so that a timer that was too late does not end the next wait
    bool timedOut = false;
};

struct Socket::Watch : std::enable_shared_from_this<Watch> {
    Watch(std::shared_ptr<State> watched, std::function<void()> callback)
        : state(std::move(watched)),
          gone(std::move(callback)),
          timer(state->stream.get_executor()) {}

    void begin() {
        state->stream.async_wait(asio::posix::stream_descriptor::wait_read,
                                 [self = shared_from_this()](error_code error) {
                                     if (!error) {
                                         self->look();
                                     }
                                 });
    }

    // Bytes can be the next request, or the farewell of TLS that comes right before the end. They
    // stay unread, so the socket is readable from now on and only a look from time to time tells.
    void look() {
        if (!gone) {
            return;
        }
        if (hasHungUp(state->owned.get())) {
            std::exchange(gone, nullptr)();
            return;
        }
        timer.expires_after(kLookAgain);
        timer.async_wait([self = shared_from_this()](error_code error) {
            if (!error) {
                self->look();
            }
        });
    }

    void end() {
        gone = nullptr;
        timer.cancel();
    }

    const std::shared_ptr<State> state;
    std::function<void()> gone;
    asio::steady_timer timer;
};

Socket::Socket(const asio::any_io_executor& executor, basekit2::UniqueFd descriptor)
    : state(std::make_shared<State>(executor, std::move(descriptor))) {
    state->stream.native_non_blocking(true);
}

Socket::~Socket() {
    endWatch();
    state->timer.cancel();
    error_code ignored;  // there is nothing that could be done about it
    state->stream.cancel(ignored);
    shutDown();
}

int Socket::descriptor() const {
    return state->owned.get();
}

Awaitable<bool> Socket::wait(Direction direction, Duration patience) {
    const std::uint64_t number = ++state->waits;
    state->timedOut = false;
    state->timer.expires_after(patience);
    state->timer.async_wait([shared = state, number](error_code error) {
        if (!error && shared->waits == number) {
            shared->timedOut = true;
            shared->stream.cancel();
        }
    });
    error_code error;
    co_await state->stream.async_wait(direction == Direction::In
                                          ? asio::posix::stream_descriptor::wait_read
                                          : asio::posix::stream_descriptor::wait_write,
                                      asio::redirect_error(asio::use_awaitable, error));
    ++state->waits;
    state->timer.cancel();
    if (state->timedOut) {
        co_return false;
    }
    if (error) {
        throw boost::system::system_error(error, "wait for a socket");
    }
    co_return true;
}

void Socket::watchForHangUp(std::function<void()> gone) {
    endWatch();
    watch = std::make_shared<Watch>(state, std::move(gone));
    watch->begin();
}

void Socket::endWatch() {
    if (watch) {
        watch->end();
        watch.reset();
        state->stream.cancel();
    }
}

void Socket::shutDownReading() const {
    (void)::shutdown(state->owned.get(), SHUT_RD);  // fails where there is no connection any more
}

void Socket::shutDownWriting() const {
    (void)::shutdown(state->owned.get(), SHUT_WR);  // the same
}

void Socket::shutDown() const {
    (void)::shutdown(state->owned.get(), SHUT_RDWR);  // the same
}

}  // namespace kolvan::server::http
