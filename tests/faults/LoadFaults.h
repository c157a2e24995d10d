#pragma once

#include <cstddef>
#include <cstdint>

// Faults that are a matter of numbers: a few of them belong to every run of the tests, very many to
// the long ones. Failures are reported as those of the test.
namespace kolvan::test {

/// Launches so many operations by one reply, when no thread can be started any more from the given
/// one on: each ends exactly once, and those that found no thread are told of by an "error" too.
void expectEveryLaunchAnswered(int launches, std::uint64_t firstFailingThread);

/// Answers polls at once, so many of them: nothing grows.
void expectQuickPollsToLeaveNothing(std::size_t polls);

/// Floods all three channels at once with so many bytes each, the log being thrown away: everything
/// arrives, in order.
void expectFloodToArrive(std::uint64_t bytesOfEachChannel);

/// Has a collector write so many bytes on standard output, each by a call of its own.
void expectSingleBytesToArrive(std::uint64_t bytes);

/// Has so many runs at the same time.
void expectRunsAtOnceToEnd(int runs);

/// Uploads so many traces of one collection under the usual limit of descriptors.
void expectTracesToArrive(int traces);

/// Kills the agent at its n-th write to a file of an installation, n growing by the step until an
/// installation is left alone: the next start mends what it left.
void expectKilledInstallationsToBeMended(std::uint64_t step);

/// Interrupts so many lives from all sides while operations run.
void expectLivesToSurviveStorms(int lives);

}  // namespace kolvan::test
