#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

namespace kolvan::test {

/// One kind of call that fails, and how.
struct FailureKind {
    std::string call;  ///< as `FailingCall` names it
    int error = 0;
    std::string name;  ///< of the case
};

/// Lets one call of the kind fail in a whole life of the agent: a version query, an installation, a
/// run, a collection with its uploads, and a stop. The first call fails in the first life, the next
/// one of the sweep in the next, until a life passes without having come to the call. Each life is
/// examined: how it ends, what it has told the server, and what it leaves.
///
/// Failures are reported as those of the test.
/// @param step from one call to the next: 1 for all of them
void sweep(const FailureKind& kind, std::uint64_t step);

/// Prints a kind as the parameter of a test.
void PrintTo(const FailureKind& kind, std::ostream* stream);

}  // namespace kolvan::test
