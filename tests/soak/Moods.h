#pragma once

#include "tests/soak/Records.h"
#include "tests/support/standin/ProfilingServer.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

namespace kolvan::test::soak {

/// Makes a server fast, slow and unfair in turn, each for some messages with output.
///
/// - fast: it answers at once
/// - slow: each answer takes its time
/// - unfair: one channel gets no answer while the others have some more messages to send
///
/// Threads: any member from any thread.
class Moods {
public:
    explicit Moods(std::uint64_t seed) : random(seed) {}

    /// For `ProfilingServer::answerWith`: takes its time and leaves the answer to the server. It
    /// must live as long as the server may call it.
    std::optional<std::vector<AgentMessage>> operator()(const AgentMessage& message);

private:
    std::mutex mutex;  // guards random and messages
    std::condition_variable changed;
    Randomness random;
    std::size_t messages = 0;
};

}  // namespace kolvan::test::soak
