#include "tests/soak/Workloads.h"

#include <gtest/gtest.h>

// The full forms, which `scripts/soak` runs.

namespace kolvan::test::soak {
namespace {

TEST(LongTest, EveryByteOfAGigabyteArrivesOnceAndInOrder) {
    proveIntegrity(1U << 30U, 1);
}

TEST(LongTest, FortyThousandOperationsLeaveNothingBehind) {
    runOperations(40000);
}

TEST(LongTest, AllOfFiveThousandTracesArrive) {
    uploadTraces(5000, 1);
}

TEST(LongTest, ThousandLives) {
    connectAndStop(1000);
}

TEST(LongTest, ThousandTimesAccepted) {
    acceptAgain(1000);
}

}  // namespace
}  // namespace kolvan::test::soak
