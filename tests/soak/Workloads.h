#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace kolvan::test::soak {

// What an agent is put through, in the size that is asked for. Each function starts the real
// program, fails the test when anything is not as it must be, and prints what it has counted.

/// Lets many runs of the producer write numbered records on all channels at once, `bytes` in all,
/// to a server that is fast, slow and unfair in turn, and checks that each byte arrives once and in
/// order.
void proveIntegrity(std::uint64_t bytes, std::uint64_t seed);

/// Runs so many operations in one life of the agent, many at a time.
void runOperations(std::size_t count);

/// Collects so many trace files in one collection, under the usual limit of open descriptors.
void uploadTraces(std::size_t count, std::uint64_t seed);

/// Starts the agent, lets it run one operation and stops it, so many times in one directory.
void connectAndStop(std::size_t cycles);

/// Lets the server accept one agent so many times.
void acceptAgain(std::size_t times);

/// Starts agent after agent while `next` says so, and lets each run random operations, of which one
/// in twenty meets a fault.
/// @param mostBatches how many times at most one agent is given some operations at once
/// @param next given the number of lives that have been; false ends the soak
void soak(std::uint64_t seed, std::uint64_t mostBatches,
          const std::function<bool(std::size_t lives)>& next);

}  // namespace kolvan::test::soak
