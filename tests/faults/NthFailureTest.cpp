#include "tests/faults/FailureKinds.h"

#include <gtest/gtest.h>

namespace kolvan::test {
namespace {

// Few calls of each kind: the sweeps over all of them are long.
constexpr std::uint64_t kStep = 9;

class NthFailureTest : public testing::TestWithParam<FailureKind> {};

TEST_P(NthFailureTest, SomeCallsOfALife) {
    sweep(GetParam(), kStep);
}

INSTANTIATE_TEST_SUITE_P(Faults, NthFailureTest, testing::ValuesIn(failureKinds()), nameOfKind);

}  // namespace
}  // namespace kolvan::test
