#include "tests/faults/LoadFaults.h"

#include <gtest/gtest.h>

namespace kolvan::test {
namespace {

// The agent's own threads, that of the installation and that of the version query are there before.
constexpr std::uint64_t kFirstThreadOfAnOperation = 7;

TEST(LoadFaultTest, ThousandLaunchesWithoutAThread) {
    expectEveryLaunchAnswered(1'000, kFirstThreadOfAnOperation);
}

TEST(LoadFaultTest, ThousandLaunchesWhenThreadsRunOut) {
    expectEveryLaunchAnswered(1'000, 100);
}

TEST(LoadFaultTest, ThousandPollsThatAreAnsweredAtOnce) {
    expectQuickPollsToLeaveNothing(1'000);
}

TEST(LoadFaultTest, FloodsOfTenMegabytesOnAllChannelsAtOnce) {
    expectFloodToArrive(10'000'000);
}

TEST(LoadFaultTest, MillionSingleBytes) {
    expectSingleBytesToArrive(1'000'000);
}

TEST(LoadFaultTest, TwoHundredRunsAtOnce) {
    expectRunsAtOnceToEnd(200);
}

TEST(LoadFaultTest, ThousandTraces) {
    expectTracesToArrive(1'000);
}

TEST(LoadFaultTest, SomeKilledInstallations) {
    expectKilledInstallationsToBeMended(7);
}

TEST(LoadFaultTest, StormOfInterrupts) {
    expectLivesToSurviveStorms(3);
}

}  // namespace
}  // namespace kolvan::test
