#include "tests/soak/AgentCounts.h"
#include "tests/soak/Workloads.h"

#include <gtest/gtest.h>

// Small forms of what LongTest.cpp does in full: they hold that the machinery itself works.

namespace kolvan::test::soak {
namespace {

TEST(SoakTest, EveryByteArrivesOnceAndInOrder) {
    // With a sanitizer the agent takes its time.
    proveIntegrity((isSanitized() ? 16U : 64U) << 20U, 1);
}

TEST(SoakTest, OperationsLeaveNothingBehind) {
    runOperations(300);
}

TEST(SoakTest, AllTracesOfACollectionArrive) {
    uploadTraces(200, 1);
}

TEST(SoakTest, ConnectAndStop) {
    connectAndStop(20);
}

TEST(SoakTest, AcceptedAgain) {
    acceptAgain(20);
}

TEST(SoakTest, RandomOperationsWithFaults) {
    soak(3, /*mostBatches=*/8, [](std::size_t lives) { return lives < 5; });
}

}  // namespace
}  // namespace kolvan::test::soak
