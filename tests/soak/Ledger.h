#pragma once

#include "tests/endtoend/FaultyRelay.h"
#include "tests/support/standin/ArrivedMessage.h"
#include "tests/support/standin/OutputLog.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace kolvan::test::soak {

/// The books of one agent's life: what has arrived at the server, and what was in the requests that
/// never reached it because their connection was reset.
///
/// Threads: any member from any thread.
class Ledger {
public:
    /// Has the first message of this type of this operation lost on its way.
    void loseFirst(const std::string& id, const std::string& type);

    /// Has the next request for commands lost, which ends the agent's connection.
    void loseNextPoll();

    /// Decides about a request, as a rule of the relay, and keeps what is lost.
    Treatment judge(const std::string& request);

    /// Notes what has arrived.
    void arrive(const OutputChunk& chunk);

    /// Ends the books: what arrives from now on, from an agent that has been killed, counts as if
    /// it had not.
    void close();

    /// Everything that has left the agent on one channel of an operation, in order: what has
    /// arrived and what was lost.
    std::string sent(const std::string& id, Channel channel) const;

    /// Number of bytes that have arrived, or were lost, of all operations.
    std::uint64_t arrivedBytes() const;
    std::uint64_t lostBytes() const;

    /// Number of requests that were lost.
    std::size_t lostRequests() const;

private:
    using Place = std::pair<std::string, Channel>;

    bool isToBeLost(const AgentMessage& message);

    // Guards toLose, loseAPoll, texts, arrived, lost, requests and closed.
    mutable std::mutex mutex;
    std::map<std::string, std::string> toLose;  // type of message by operation
    bool loseAPoll = false;
    std::map<Place, std::string> texts;
    std::uint64_t arrived = 0;
    std::uint64_t lost = 0;
    std::size_t requests = 0;
    bool closed = false;
};

}  // namespace kolvan::test::soak
