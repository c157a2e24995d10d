#pragma once

#include "tests/support/RawServer.h"

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kolvan::test {

/// A profiling server that answers messages with any bytes. "connect" is accepted, everything else
/// gets an empty list, except where a rule knows better.
///
/// Threads: any member from any thread.
class ReplyServer {
public:
    /// Decides about the reply to the number-th message of a type, from 1. Nothing: as usual, where
    /// a poll is answered when the agent has said "disconnect". Called by many threads at once.
    using Rule =
        std::function<std::optional<std::string>(const std::string& type, std::size_t number)>;

    explicit ReplyServer(Rule rule);

    std::string endpoint() const { return server.endpoint(); }

    /// The types of the messages so far, in the order in which they came.
    std::vector<std::string> types() const;

    /// Blocks until so many messages of a type have come.
    /// @return false when the deadline passed
    bool waitFor(const std::string& type, std::size_t count = 1) const;

private:
    void answer(RawConnection& connection);
    std::size_t note(const std::string& type);
    std::size_t countOf(const std::string& type) const;

    const Rule rule;
    mutable std::mutex mutex;  // guards received
    mutable std::condition_variable changed;
    std::vector<std::string> received;
    RawServer server;  // last: its threads use the members above
};

}  // namespace kolvan::test
