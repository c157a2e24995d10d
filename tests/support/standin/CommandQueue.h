#pragma once

#include "tests/support/standin/ArrivedMessage.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace kolvan::test {

/// The commands that wait for the agent's next poll, and the polls that wait for a command.
///
/// Threads: any member from any thread.
class CommandQueue {
public:
    /// Appends commands; they leave together with the next poll.
    void push(std::vector<AgentMessage> commands);

    /// Holds the poll of an agent until there are commands, it is released or the time is over, and
    /// takes all commands out.
    /// @return empty unless there were commands
    std::vector<AgentMessage> take(const std::string& agent, std::chrono::milliseconds timeout);

    /// Sends every poll that is being held home without a command; later ones are held again.
    void releasePolls();

    /// Sends the poll of one agent home, or the next one that it makes when none is being held:
    /// an agent that stops does not end before its last poll has been answered.
    void releaseAgent(const std::string& agent);

    /// Releases every poll, now and from now on.
    void close();

    /// Returns how many polls are being held.
    std::size_t heldPolls() const;

    /// Blocks until at least so many polls are being held.
    /// @return false when the time was over first
    bool waitForHeldPolls(std::size_t count, std::chrono::milliseconds timeout) const;

private:
    // Guards commands, held, releases, leavingAgents and closed. No other lock is taken under it.
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::deque<AgentMessage> commands;
    std::size_t held = 0;
    std::size_t releases = 0;
    std::set<std::string> leavingAgents;
    bool closed = false;
};

}  // namespace kolvan::test
