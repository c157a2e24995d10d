#include "basekit2/Places.h"

#include "basekit2/process/DescriptorBudget.h"
#include "tests/support/BackgroundCall.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <thread>
#include <utility>
#include <vector>

namespace kolvan::test {

using basekit2::Places;
using basekit2::process::DescriptorBudget;
using Place = Places::Place;

namespace {

BackgroundCall<Place> takeInBackground(Places& places) {
    return BackgroundCall<Place>([&places] { return places.take(); });
}

/// How many places can be taken without waiting: takes them until it is turned away.
std::size_t countOf(Places& places) {
    BackgroundCall<std::size_t> guest([&places] {
        std::vector<Place> taken;
        while (Place next = places.take()) {
            taken.push_back(std::move(next));
        }
        return taken.size();
    });
    while (!guest.hasEnded()) {
        places.turnAway();  // reaches only somebody who waits
    }
    return guest.get();
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

}  // namespace kolvan::test
