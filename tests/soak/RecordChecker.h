#pragma once

#include "tests/soak/Records.h"
#include "tests/support/standin/OutputLog.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kolvan::test::soak {

/// Checks the records of one stream as they come, in pieces of any size.
class RecordStream {
public:
    explicit RecordStream(std::uint64_t stream) : stream(stream) {}

    /// Takes the next bytes.
    void add(std::string_view bytes);

    /// What is wrong with the stream if nothing more comes; empty: each byte came once, in order.
    std::string problem() const;

    std::uint64_t bytes() const { return received; }

private:
    const std::uint64_t stream;
    std::string pending;  // the beginning of a record whose end has not come yet
    std::uint64_t received = 0;
    std::uint64_t nextNumber = 0;
    bool complete = false;
    std::string firstProblem;
};

/// Checks what runs of the producer have written, on every channel, while it arrives.
///
/// Threads: any member from any thread.
class RecordChecker {
public:
    /// Expects the output of a run.
    /// @param seed as the producer was given it
    void expect(const std::string& id, std::uint64_t seed);

    /// To be called for each piece of output, in the order of its channel.
    void add(const OutputChunk& chunk);

    /// A sentence for each channel whose bytes did not all come, each once and in order.
    std::vector<std::string> problems() const;

    /// Number of bytes that have arrived.
    std::uint64_t bytes() const;

private:
    mutable std::mutex mutex;  // guards streams, strangers and received
    std::map<std::pair<std::string, Channel>, RecordStream> streams;
    std::vector<std::string> strangers;
    std::uint64_t received = 0;
};

}  // namespace kolvan::test::soak
