#include "tests/faults/Crossings.h"

#include <gtest/gtest.h>

namespace kolvan::test {
namespace {

constexpr int kRuns = 1'000;
constexpr int kRounds = 20;

class CrowdLongTest : public testing::TestWithParam<DescriptorLimits> {};

TEST_P(CrowdLongTest, TwentyOfThousandEndWholeAndLeaveNothing) {
    expectCrowdsToEnd(GetParam(), kRuns, kRounds);
}

INSTANTIATE_TEST_SUITE_P(CrossedFaultLongTest, CrowdLongTest, testing::ValuesIn(kDescriptorLimits),
                         [](const auto& limits) { return limits.param.name(); });

class CrossingLongTest : public testing::TestWithParam<Crossing> {};

TEST_P(CrossingLongTest, IsSurvived) {
    expectSurvived(GetParam(), kRuns);
}

INSTANTIATE_TEST_SUITE_P(CrossedFaultLongTest, CrossingLongTest,
                         testing::ValuesIn(crossingsUnder(kDescriptorLimits)),
                         [](const auto& crossing) { return crossing.param.name; });

}  // namespace
}  // namespace kolvan::test
