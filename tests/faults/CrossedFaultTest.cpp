#include "tests/faults/Crossings.h"

#include <gtest/gtest.h>

#include <vector>

namespace kolvan::test {
namespace {

// More than there is room for under the lowest of the limits.
constexpr int kRuns = 200;

// A crowd has room under the first, under the second when the agent makes use of all that it is
// given, and none under the last.
const std::vector<DescriptorLimits> kSomeLimits{{4096, 4096}, {1024, 4096}, {256, 256}};

class CrowdTest : public testing::TestWithParam<DescriptorLimits> {};

TEST_P(CrowdTest, EndsWholeAndLeavesNothing) {
    expectCrowdsToEnd(GetParam(), kRuns, 2);
}

INSTANTIATE_TEST_SUITE_P(CrossedFaultTest, CrowdTest, testing::ValuesIn(kDescriptorLimits),
                         [](const auto& limits) { return limits.param.name(); });

class CrossingTest : public testing::TestWithParam<Crossing> {};

TEST_P(CrossingTest, IsSurvived) {
    expectSurvived(GetParam(), kRuns);
}

INSTANTIATE_TEST_SUITE_P(CrossedFaultTest, CrossingTest,
                         testing::ValuesIn(crossingsUnder(kSomeLimits)),
                         [](const auto& crossing) { return crossing.param.name; });

}  // namespace
}  // namespace kolvan::test
