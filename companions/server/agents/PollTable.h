#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

namespace kolvan::server::agents {

/// Why a poll is not held any longer.
enum class PollEnd {
    Woken,       ///< there may be commands
    TimeOver,    ///< there is nothing to say; the agent will ask again
    Superseded,  ///< the same agent has made another poll: this one's connection is dead, or a
                 ///< second program calls itself the same
    Gone,        ///< its client has closed the connection
    Stopping,    ///< the server is about to stop
};

/// The requests for commands that are being held: one at most for each agent.
///
/// Commands themselves are kept elsewhere. To miss none, a poll is opened first, then the queue is
/// looked at, then the poll is waited for: a command that is queued after the look wakes the poll.
///
/// Threads: one, that of the network. Nothing in it blocks or knows the network.
class PollTable {
public:
    using Clock = std::chrono::steady_clock;

    /// A poll's place in the table, left with its end or its destructor, whatever comes first. The
    /// table outlives it.
    class Poll {
    public:
        ~Poll();
        Poll(const Poll&) = delete;
        Poll& operator=(const Poll&) = delete;

        /// Calls `ended` once, at the end of the poll; within this call when it has ended already.
        void onEnd(std::function<void(PollEnd)> ended);

        /// Ends the poll, if it has not ended yet.
        void end(PollEnd reason);

        /// Nothing while it is held.
        std::optional<PollEnd> reason() const { return endReason; }

    private:
        friend class PollTable;
        Poll(PollTable& owner, std::string agentId, Clock::time_point endOfTime);

        PollTable& table;
        const std::string agent;
        const Clock::time_point deadline;
        std::list<Poll*>::iterator place;  // in the table's order, while it is held
        std::function<void(PollEnd)> callback;
        std::optional<PollEnd> endReason;
    };

    /// @param duration how long a poll is held
    explicit PollTable(Clock::duration duration) : holdTime(duration) {}

    PollTable(const PollTable&) = delete;
    PollTable& operator=(const PollTable&) = delete;

    /// Opens a poll of the agent; an older one of the same agent is superseded. After `stop` it has
    /// ended when it is returned.
    std::unique_ptr<Poll> open(const std::string& agent, Clock::time_point now);

    /// Wakes the agent's poll.
    /// @return false when none is held
    bool wake(const std::string& agent);

    /// Ends the polls whose time is over.
    void expire(Clock::time_point now);

    /// When `expire` has something to do next; nothing while no poll is held.
    std::optional<Clock::time_point> nextExpiry() const;

    /// Ends all polls, and those that will be opened, as they come.
    void stop();

    /// How many are being held, and whether one of this agent is.
    std::size_t size() const { return order.size(); }
    bool holds(const std::string& agent) const { return held.count(agent) != 0; }

private:
    const Clock::duration holdTime;
    std::unordered_map<std::string, Poll*> held;
    std::list<Poll*> order;  // oldest first, which is also the order of their deadlines
    bool stopped = false;
};

}  // namespace kolvan::server::agents
