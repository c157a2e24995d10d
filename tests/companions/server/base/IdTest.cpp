#include "companions/server/base/Id.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <unordered_set>

namespace kolvan::server {
namespace {

struct Sheep;
struct Goat;

TEST(IdTest, IsARandomUuidOfVersionFour) {
    EXPECT_THAT(Id<Sheep>::make().text,
                testing::MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-"
                                      "[0-9a-f]{12}"));
}

TEST(IdTest, EachIsMadeOnce) {
    std::unordered_set<Id<Sheep>> ids;

    for (int count = 0; count < 10'000; ++count) {
        ids.insert(Id<Sheep>::make());
    }

    EXPECT_EQ(10'000U, ids.size());
}

TEST(IdTest, IdsOfDifferentThingsDoNotMix) {
    EXPECT_FALSE((std::is_convertible_v<Id<Sheep>, Id<Goat>>));
    EXPECT_FALSE((std::is_constructible_v<Id<Sheep>, Id<Goat>>));
    EXPECT_FALSE((std::is_convertible_v<std::string, Id<Goat>>));
}

}  // namespace
}  // namespace kolvan::server
