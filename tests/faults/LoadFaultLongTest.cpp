#include "tests/faults/LoadFaults.h"

#include <gtest/gtest.h>

namespace kolvan::test {
namespace {

TEST(LoadFaultLongTest, TenThousandLaunchesWithoutAThread) {
    expectEveryLaunchAnswered(10'000, 7);
}

TEST(LoadFaultLongTest, TenThousandLaunchesWhenThreadsRunOut) {
    expectEveryLaunchAnswered(10'000, 1'000);
}

TEST(LoadFaultLongTest, FiftyThousandPollsThatAreAnsweredAtOnce) {
    expectQuickPollsToLeaveNothing(50'000);
}

TEST(LoadFaultLongTest, FloodsOfAGigabyteOnAllChannelsAtOnce) {
    expectFloodToArrive(1'000'000'000 / 3);
}

TEST(LoadFaultLongTest, ThousandRunsAtOnce) {
    expectRunsAtOnceToEnd(1'000);
}

TEST(LoadFaultLongTest, FiveThousandTraces) {
    expectTracesToArrive(5'000);
}

TEST(LoadFaultLongTest, EveryKilledInstallation) {
    expectKilledInstallationsToBeMended(1);
}

TEST(LoadFaultLongTest, StormsOfInterrupts) {
    expectLivesToSurviveStorms(100);
}

}  // namespace
}  // namespace kolvan::test
