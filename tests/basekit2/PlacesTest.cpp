#include "basekit2/Places.h"

#include "basekit2/process/DescriptorBudget.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ThreadStates.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <utility>
#include <vector>

#include <sys/resource.h>

namespace kolvan::test {

using basekit2::Places;
using basekit2::process::descriptor_budget;
using basekit2::process::DescriptorBudget;
using Place = Places::Place;

namespace {

BackgroundCall<Place> takeInBackground(Places& places) {
    return BackgroundCall<Place>([&places] { return places.take(); });
}

/// How many places can be taken without waiting, up to a number that no test has: takes them until
/// it is turned away.
std::size_t countOf(Places& places) {
    constexpr std::size_t kTooMany = 1000;
    BackgroundCall<std::size_t> guest([&places] {
        std::vector<Place> taken;
        while (taken.size() < kTooMany) {
            Place next = places.take();
            if (!next) {
                break;
            }
            taken.push_back(std::move(next));
        }
        return taken.size();
    });
    while (!guest.hasEnded()) {
        places.turnAway();  // reaches only somebody who waits
    }
    return guest.get();
}

/// Ends this program, with 0 when its budget is the one of `soft` descriptors: the budget of a
/// process is made once.
[[noreturn]] void divideLimit(rlim_t soft, rlim_t hard) {
    const rlimit limit{soft, hard};
    (void)::setrlimit(RLIMIT_NOFILE, &limit);
    DescriptorBudget& own = descriptor_budget();
    DescriptorBudget expected(soft);
    const bool same = countOf(own.runs) == countOf(expected.runs) &&
                      countOf(own.messages) == countOf(expected.messages) &&
                      countOf(own.uploads) == countOf(expected.uploads);
    std::exit(same ? 0 : 1);
}

}  // namespace

TEST(PlacesTest, AsManyAsThereAreCanBeTakenAtOnce) {
    Places places(3);

    EXPECT_EQ(3U, countOf(places));
    EXPECT_EQ(3U, countOf(places));
}

TEST(PlacesTest, PlaceIsGivenBackAtTheEndOfItsLife) {
    Places places(1);
    { const Place place = places.take(); }

    EXPECT_TRUE(places.take());
}

TEST(PlacesTest, MovedPlaceIsGivenBackOnce) {
    Places places(1);
    {
        Place place = places.take();
        Place owner = std::move(place);
        Place last;
        last = std::move(owner);
        EXPECT_TRUE(last);
        auto waiting = takeInBackground(places);
        EXPECT_TRUE(waiting.isBlocked());
        last = Place();
        EXPECT_TRUE(waiting.get());
    }

    EXPECT_EQ(1U, countOf(places));
}

TEST(PlacesTest, WaitersAreServedInTheOrderOfArrival) {
    Places places(1);
    Place held = places.take();
    auto first = takeInBackground(places);
    ASSERT_TRUE(first.isBlocked());
    auto second = takeInBackground(places);
    ASSERT_TRUE(second.isBlocked());

    held = Place();

    lookUntil([&] { return first.hasEnded() || second.hasEnded(); }, "nobody is served");
    ASSERT_TRUE(first.hasEnded());
    Place next = first.get();
    EXPECT_TRUE(next);
    EXPECT_TRUE(second.isBlocked());
    next = Place();
    EXPECT_TRUE(second.get());
}

TEST(PlacesTest, WaitersThatAreTurnedAwayHaveNoPlace) {
    Places places(1);
    const Place held = places.take();
    auto first = takeInBackground(places);
    auto second = takeInBackground(places);
    ASSERT_TRUE(first.isBlocked());
    ASSERT_TRUE(second.isBlocked());

    places.turnAway();

    EXPECT_FALSE(first.get());
    EXPECT_FALSE(second.get());
    EXPECT_TRUE(held);
}

TEST(PlacesTest, PlaceThatIsGivenBackAfterATurnAwayIsFree) {
    Places places(1);
    Place held = places.take();
    auto waiting = takeInBackground(places);
    ASSERT_TRUE(waiting.isBlocked());
    places.turnAway();
    ASSERT_FALSE(waiting.get());

    held = Place();

    EXPECT_EQ(1U, countOf(places));
}

TEST(PlacesTest, TurningAwayLeavesTakenAndFreePlacesAsTheyAre) {
    Places places(2);
    const Place held = places.take();

    places.turnAway();

    EXPECT_TRUE(held);
    EXPECT_EQ(1U, countOf(places));
}

TEST(PlacesTest, NeverMoreAreInsideThanThereArePlaces) {
    Places places(3);
    std::atomic<int> inside{0};
    std::atomic<int> tooMany{0};
    std::vector<std::thread> guests;
    for (int guest = 0; guest < 8; ++guest) {
        guests.emplace_back([&] {
            for (int round = 0; round < 2000; ++round) {
                const Place place = places.take();
                tooMany += ++inside > 3 ? 1 : 0;
                --inside;
            }
        });
    }
    for (std::thread& guest : guests) {
        guest.join();
    }

    EXPECT_EQ(0, tooMany);
    EXPECT_EQ(3U, countOf(places));
}

TEST(DescriptorBudgetTest, LowLimitLeavesRoomForOneOfEachKind) {
    for (const std::size_t limit : {0U, 3U, 32U, 64U, 65U}) {
        DescriptorBudget budget(limit);

        EXPECT_EQ(1U, countOf(budget.runs)) << limit;
        EXPECT_EQ(1U, countOf(budget.messages)) << limit;
        EXPECT_EQ(1U, countOf(budget.uploads)) << limit;
    }
}

TEST(DescriptorBudgetTest, EverythingAtOnceFitsTheLimit) {
    for (const std::size_t limit : {128U, 256U, 1024U, 4096U}) {
        DescriptorBudget budget(limit);
        const std::size_t runs = countOf(budget.runs);
        const std::size_t messages = countOf(budget.messages);
        const std::size_t uploads = countOf(budget.uploads);

        EXPECT_LE(limit / 64, runs) << limit;
        EXPECT_LE(limit / 128, messages) << limit;
        EXPECT_LE(limit / 32, uploads) << limit;
        EXPECT_LE(10 * runs + 6 * messages + 6 * uploads + 64, limit) << limit;
    }
}

TEST(DescriptorBudgetTest, ProcessDividesItsSoftLimit) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");

    EXPECT_EXIT(divideLimit(200, 500), ::testing::ExitedWithCode(0), "");
}

}  // namespace kolvan::test
