#pragma once

#include "tests/support/AgentProcess.h"
#include "tests/support/ScriptedCollector.h"

#include <cstdint>
#include <string>

namespace kolvan::test {

/// Lets calls of the agent to the system fail: the n-th one of a kind, or every so many of them.
///
/// The kinds are "pipe2", "dup", "spawn", "thread", "open", "mkdir", "getcwd", "read", "write",
/// "socket", "eventfd", "poll", "ppoll", "waitid", "curl", which is the start of that library, and
/// "clock", which is the time of day that jumps to the next century and back. The agent's children
/// are left alone.
class FailingCall {
public:
    /// Value of `error` that kills the agent in place of a failure.
    static constexpr int kKill = 0;

    /// Value of `error` that holds the call until `release()`. It passes then.
    static constexpr int kHold = -1;

    /// @param error what the call leaves in errno
    /// @param first number of the call that fails, from 1
    /// @param step after how many further calls the next one fails; 0: it is the only one
    FailingCall(std::string kind, int error, std::uint64_t first, std::uint64_t step = 0);

    /// Makes a program that is to be started one that fails so.
    void applyTo(AgentLaunch& launch) const;

    /// Lets go what is held, and what would be held later.
    void release();

    /// How many calls of the kind there have been.
    std::uint64_t calls() const;

    /// Whether there has been a failure.
    bool reached() const { return calls() >= first; }

private:
    const std::string description;
    const std::uint64_t first;
    const TemporaryDirectory place;
    const std::string counter;
    Leash leash;
};

}  // namespace kolvan::test
