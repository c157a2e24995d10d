#include "companions/server/http/Router.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace kolvan::server::http {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

using Places = std::map<std::string, std::string>;

TEST(RouterTest, PlacesAreFilledFromThePath) {
    Router router;
    router.add("GET", "/a/{id}/b/{name}", nullptr);
    Places places;

    EXPECT_TRUE(router.find("GET", {"a", "1", "b", "x/y"}, places).route);

    EXPECT_THAT(places, ElementsAre(Pair("id", "1"), Pair("name", "x/y")));
}

TEST(RouterTest, PlaceIsNeverEmpty) {
    Router router;
    router.add("GET", "/a/{id}", nullptr);
    Places places;

    EXPECT_FALSE(router.find("GET", {"a", ""}, places).route);
}

TEST(RouterTest, FirstOfTwoThatFitCounts) {
    Router router;
    router.add("GET", "/a/first", nullptr, 1);
    router.add("GET", "/a/{id}", nullptr, 2);
    Places places;

    EXPECT_EQ(1U, router.find("GET", {"a", "first"}, places).route->bodyLimit);
    EXPECT_THAT(places, IsEmpty());
    EXPECT_EQ(2U, router.find("GET", {"a", "other"}, places).route->bodyLimit);
}

TEST(RouterTest, OtherMethodsOfThePathAreNamed) {
    Router router;
    router.add("GET", "/a", nullptr);
    router.add("DELETE", "/a", nullptr);
    router.add("PUT", "/b", nullptr);
    Places places;

    const Router::Match match = router.find("POST", {"a"}, places);

    EXPECT_FALSE(match.route);
    EXPECT_THAT(match.allowed, ElementsAre("GET", "DELETE"));
}

TEST(RouterTest, GetAnswersHead) {
    Router router;
    router.add("GET", "/a", nullptr);
    Places places;

    EXPECT_TRUE(router.find("HEAD", {"a"}, places).route);
}

TEST(RouterTest, LongerAndShorterPathsAreOthers) {
    Router router;
    router.add("GET", "/a/b", nullptr);
    Places places;

    EXPECT_FALSE(router.find("GET", {"a"}, places).route);
    EXPECT_FALSE(router.find("GET", {"a", "b", ""}, places).route);
    EXPECT_FALSE(router.find("GET", {"a", "b", "c"}, places).route);
}

TEST(RouterTest, PatternHasToBeAPath) {
    Router router;

    EXPECT_THROW(router.add("GET", "a", nullptr), std::invalid_argument);
}

}  // namespace
}  // namespace kolvan::server::http
