#include "companions/server/agents/HeldPolls.h"

#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <utility>

namespace kolvan::server::agents {

namespace asio = boost::asio;

using boost::system::error_code;

struct HeldPolls::State : std::enable_shared_from_this<State> {
    State(const asio::any_io_executor& anyExecutor, PollTable::Clock::duration holdTime)
        : executor(anyExecutor), timer(anyExecutor), polls(holdTime) {}

    // One timer for all: polls end in the order in which they have begun. It is left alone while a
    // later poll comes, and finds nothing to do when an earlier one has gone.
    void arm() {
        if (armed || stopped) {
            return;
        }
        if (const auto next = polls.nextExpiry()) {
            armed = true;
            timer.expires_at(*next);
            timer.async_wait([self = shared_from_this()](error_code error) {
                self->armed = false;
                if (!error) {
                    self->polls.expire(PollTable::Clock::now());
                    self->arm();
                }
            });
        }
    }

    const asio::any_io_executor executor;
    asio::steady_timer timer;
    PollTable polls;
    bool armed = false;
    bool stopped = false;
};

HeldPolls::HeldPolls(const asio::any_io_executor& anyExecutor, PollTable::Clock::duration holdTime)
    : state(std::make_shared<State>(anyExecutor, holdTime)) {}

HeldPolls::~HeldPolls() {
    state->stopped = true;
    state->timer.cancel();
}

std::unique_ptr<PollTable::Poll> HeldPolls::open(const std::string& agent) {
    auto poll = state->polls.open(agent, PollTable::Clock::now());
    state->arm();
    return poll;
}

http::Awaitable<PollEnd> HeldPolls::wait(PollTable::Poll& poll) {
    // Cancelled by the end of the poll, which may come first.
    asio::steady_timer ended(state->executor, PollTable::Clock::time_point::max());
    poll.onEnd([&ended](PollEnd /*reason*/) { ended.cancel(); });
    if (!poll.reason()) {
        error_code ignored;  // there is no other end than a cancellation
        co_await ended.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
    }
    co_return poll.reason().value_or(PollEnd::Stopping);
}

void HeldPolls::wakeFromAnywhere(const std::string& agent) {
    asio::post(state->executor, [shared = state, agent] {
        (void)shared->polls.wake(agent);  // an agent without a poll looks when it makes one
    });
}

void HeldPolls::stop() {
    state->polls.stop();
    state->timer.cancel();  // or whoever waits until nothing is left to do waits for it, too
}

const PollTable& HeldPolls::table() const {
    return state->polls;
}

}  // namespace kolvan::server::agents
