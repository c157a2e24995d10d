#pragma once

#include "companions/server/agents/PollTable.h"
#include "companions/server/http/Awaitable.h"

#include <boost/asio/any_io_executor.hpp>

#include <chrono>
#include <memory>
#include <string>

namespace kolvan::server::agents {

/// A table of polls with the time that passes for them, and coroutines that wait.
///
/// Threads: those of the executor, which runs one thing at a time, except for `wakeFromAnywhere`.
class HeldPolls {
public:
    /// How long a poll is held: less than the 30 seconds after which many proxies lose patience.
    static constexpr std::chrono::seconds kHoldTime{25};

    explicit HeldPolls(const boost::asio::any_io_executor& anyExecutor,
                       PollTable::Clock::duration holdTime = kHoldTime);

    /// @pre no poll is left
    ~HeldPolls();

    HeldPolls(const HeldPolls&) = delete;
    HeldPolls& operator=(const HeldPolls&) = delete;

    /// See `PollTable::open`.
    std::unique_ptr<PollTable::Poll> open(const std::string& agent);

    /// Waits until the poll has ended.
    http::Awaitable<PollEnd> wait(PollTable::Poll& poll);

    /// Wakes the agent's poll soon. From any thread.
    void wakeFromAnywhere(const std::string& agent);

    /// See `PollTable::stop`.
    void stop();

    const PollTable& table() const;

private:
    struct State;
    const std::shared_ptr<State> state;  // shared with what Asio still has to call
};

}  // namespace kolvan::server::agents
