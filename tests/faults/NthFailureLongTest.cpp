#include "tests/faults/FailureKinds.h"

#include <gtest/gtest.h>

namespace kolvan::test {
namespace {

class NthFailureLongTest : public testing::TestWithParam<FailureKind> {};

TEST_P(NthFailureLongTest, EveryCallOfALife) {
    sweep(GetParam(), 1);
}

INSTANTIATE_TEST_SUITE_P(Faults, NthFailureLongTest, testing::ValuesIn(failureKinds()), nameOfKind);

}  // namespace
}  // namespace kolvan::test
