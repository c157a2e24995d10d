#include "companions/server/agents/PollTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace kolvan::server::agents {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

class PollTableTest : public testing::Test {
protected:
    std::unique_ptr<PollTable::Poll> open(const std::string& agent) {
        auto poll = table.open(agent, now);
        poll->onEnd([this](PollEnd reason) { ends.push_back(reason); });
        return poll;
    }

    PollTable table{seconds(25)};
    PollTable::Clock::time_point now{};
    std::vector<PollEnd> ends;
};

TEST_F(PollTableTest, CommandWakesThePollOfItsAgent) {
    const auto poll = open("a");
    const auto other = open("b");

    EXPECT_TRUE(table.wake("a"));

    EXPECT_EQ(PollEnd::Woken, poll->reason());
    EXPECT_FALSE(other->reason());
    EXPECT_THAT(ends, ElementsAre(PollEnd::Woken));
    EXPECT_FALSE(table.holds("a"));
    EXPECT_TRUE(table.holds("b"));
}

TEST_F(PollTableTest, AgentWithoutAPollIsNotWoken) {
    EXPECT_FALSE(table.wake("a"));
    { const auto poll = open("a"); }
    EXPECT_FALSE(table.wake("a"));
    EXPECT_THAT(ends, IsEmpty());
}

TEST_F(PollTableTest, PollThatWasWokenBeforeItIsWaitedForEndsAtOnce) {
    const auto poll = table.open("a", now);
    table.wake("a");

    poll->onEnd([this](PollEnd reason) { ends.push_back(reason); });

    EXPECT_THAT(ends, ElementsAre(PollEnd::Woken));
}

TEST_F(PollTableTest, NewerPollSupersedesTheOlderOne) {
    const auto older = open("a");
    const auto newer = open("a");

    EXPECT_EQ(PollEnd::Superseded, older->reason());
    EXPECT_EQ(1U, table.size());
    EXPECT_TRUE(table.wake("a"));
    EXPECT_EQ(PollEnd::Woken, newer->reason());
}

TEST_F(PollTableTest, OlderPollThatGoesLateLeavesTheNewerOneAlone) {
    auto older = open("a");
    const auto newer = open("a");

    older->end(PollEnd::Gone);
    older.reset();

    EXPECT_TRUE(table.holds("a"));
    EXPECT_FALSE(newer->reason());
}

TEST_F(PollTableTest, PollEndsWhenItsTimeIsOver) {
    const auto first = open("a");
    now += seconds(1);
    const auto second = open("b");
    EXPECT_EQ(PollTable::Clock::time_point(seconds(25)), table.nextExpiry());

    table.expire(PollTable::Clock::time_point(seconds(25)) - std::chrono::nanoseconds(1));
    EXPECT_THAT(ends, IsEmpty());
    table.expire(PollTable::Clock::time_point(seconds(25)));

    EXPECT_EQ(PollEnd::TimeOver, first->reason());
    EXPECT_FALSE(second->reason());
    EXPECT_EQ(PollTable::Clock::time_point(seconds(26)), table.nextExpiry());
    table.expire(PollTable::Clock::time_point(seconds(100)));
    EXPECT_EQ(PollEnd::TimeOver, second->reason());
    EXPECT_FALSE(table.nextExpiry());
}

TEST_F(PollTableTest, FirstReasonCounts) {
    const auto poll = open("a");

    poll->end(PollEnd::Gone);
    poll->end(PollEnd::Woken);
    table.stop();

    EXPECT_THAT(ends, ElementsAre(PollEnd::Gone));
}

TEST_F(PollTableTest, StopEndsAllPollsAndThoseThatCome) {
    const auto first = open("a");
    const auto second = open("b");

    table.stop();
    const auto third = open("c");

    EXPECT_THAT(ends, ElementsAre(PollEnd::Stopping, PollEnd::Stopping, PollEnd::Stopping));
    EXPECT_EQ(0U, table.size());
}

TEST_F(PollTableTest, PollMayBeDestroyedAtItsEnd) {
    auto poll = table.open("a", now);
    poll->onEnd([&poll](PollEnd) { poll.reset(); });

    table.wake("a");

    EXPECT_FALSE(poll);
    EXPECT_EQ(0U, table.size());
}

TEST_F(PollTableTest, PollMayBeOpenedAtTheEndOfAnother) {
    auto poll = table.open("a", now);
    std::unique_ptr<PollTable::Poll> next;
    poll->onEnd([&](PollEnd) { next = table.open("a", now + seconds(1)); });

    table.expire(now + seconds(25));

    EXPECT_TRUE(table.holds("a"));
    EXPECT_FALSE(next->reason());
    poll.reset();
    EXPECT_TRUE(table.holds("a"));
}

}  // namespace
}  // namespace kolvan::server::agents
