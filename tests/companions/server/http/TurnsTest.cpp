#include "companions/server/http/Turns.h"

#include "companions/server/http/HttpError.h"
#include "tests/companions/server/support/NetworkThread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <optional>
#include <string>
#include <vector>

namespace kolvan::test {
namespace {

using server::http::Awaitable;
using server::http::HttpError;
using server::http::Turns;
using testing::ElementsAre;

class TurnsTest : public testing::Test {
protected:
    /// Takes a turn, and keeps it in `held` until the test lets go of it.
    Awaitable<bool> take(std::string name) {
        held.emplace(co_await turns.take());
        order.push_back(std::move(name));
        co_return true;
    }

    std::future<bool> begin(const std::string& name) {
        auto taken = network.spawn(take(name));
        network.call([] {});  // behind its first step
        return taken;
    }

    void letGo() {
        network.call([this] { held.reset(); });
    }

    Turns turns{2};
    std::optional<Turns::Turn> held;
    std::vector<std::string> order;
    NetworkThread network;
};

TEST_F(TurnsTest, FirstOneGoesOnAtOnce) {
    EXPECT_TRUE(begin("one").get());

    letGo();

    EXPECT_TRUE(begin("two").get());
    EXPECT_THAT(order, ElementsAre("one", "two"));
}

TEST_F(TurnsTest, OthersFollowInTheirOrder) {
    EXPECT_TRUE(begin("one").get());
    auto two = begin("two");
    auto three = begin("three");
    EXPECT_THAT(network.call([this] { return order; }), ElementsAre("one"));

    letGo();
    EXPECT_TRUE(two.get());
    EXPECT_THAT(network.call([this] { return order; }), ElementsAre("one", "two"));

    letGo();
    EXPECT_TRUE(three.get());
    EXPECT_THAT(network.call([this] { return order; }), ElementsAre("one", "two", "three"));
}

TEST_F(TurnsTest, MoreThanMayWaitAreRefusedAtOnce) {
    EXPECT_TRUE(begin("one").get());
    auto two = begin("two");
    auto three = begin("three");

    try {
        (void)begin("four").get();
        FAIL() << "four waits";
    } catch (const HttpError& error) {
        EXPECT_EQ(503U, error.status());
    }

    letGo();
    EXPECT_TRUE(two.get());
    auto five = begin("five");
    letGo();
    EXPECT_TRUE(three.get());
    letGo();
    EXPECT_TRUE(five.get());
    EXPECT_THAT(network.call([this] { return order; }), ElementsAre("one", "two", "three", "five"));
}

TEST_F(TurnsTest, TurnComesBackWhenItsWorkFails) {
    const auto fail = [this]() -> Awaitable<bool> {
        const Turns::Turn turn = co_await turns.take();
        throw HttpError(400, "no");
    };
    EXPECT_THROW((void)network.spawn(fail()).get(), HttpError);

    EXPECT_TRUE(begin("next").get());
}

}  // namespace
}  // namespace kolvan::test
