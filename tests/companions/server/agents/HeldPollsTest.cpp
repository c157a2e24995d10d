#include "companions/server/agents/HeldPolls.h"

#include "tests/companions/server/support/NetworkThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <vector>

namespace kolvan::test {
namespace {

using server::agents::HeldPolls;
using server::agents::PollEnd;
using server::agents::PollTable;
using server::http::Awaitable;

// A network thread with polls on it, which begin and end there.
class PollScene {
public:
    explicit PollScene(PollTable::Clock::duration holdTime = HeldPolls::kHoldTime) {
        network.call([&] { polls = std::make_unique<HeldPolls>(network.executor(), holdTime); });
    }
    ~PollScene() {
        network.call([this] { polls.reset(); });
    }

    std::future<PollEnd> hold(const std::string& agent) {
        std::promise<void> opened;
        auto end = network.spawn(holdAndWait(agent, opened));
        opened.get_future().wait();
        return end;
    }

    NetworkThread network;
    std::unique_ptr<HeldPolls> polls;

private:
    Awaitable<PollEnd> holdAndWait(std::string agent, std::promise<void>& opened) {
        const auto poll = polls->open(agent);
        opened.set_value();
        co_return co_await polls->wait(*poll);
    }
};

TEST(HeldPollsTest, CommandFromAnotherThreadWakesThePoll) {
    PollScene scene;
    auto end = scene.hold("a");

    scene.polls->wakeFromAnywhere("a");

    EXPECT_EQ(PollEnd::Woken, end.get());
}

TEST(HeldPollsTest, PollsEndWhenTheirTimeIsOver) {
    PollScene scene(std::chrono::milliseconds(1));
    auto first = scene.hold("a");
    auto second = scene.hold("b");

    EXPECT_EQ(PollEnd::TimeOver, first.get());
    EXPECT_EQ(PollEnd::TimeOver, second.get());
    EXPECT_EQ(PollEnd::TimeOver, scene.hold("a").get());
}

TEST(HeldPollsTest, NewerPollSupersedesTheOlderOne) {
    PollScene scene;
    auto older = scene.hold("a");
    auto newer = scene.hold("a");

    EXPECT_EQ(PollEnd::Superseded, older.get());
    scene.polls->wakeFromAnywhere("a");
    EXPECT_EQ(PollEnd::Woken, newer.get());
}

TEST(HeldPollsTest, StopEndsAll) {
    PollScene scene;
    std::vector<std::future<PollEnd>> ends;
    for (int number = 0; number < 100; ++number) {
        ends.push_back(scene.hold(std::to_string(number)));
    }

    scene.network.call([&] { scene.polls->stop(); });

    for (auto& end : ends) {
        EXPECT_EQ(PollEnd::Stopping, end.get());
    }
    EXPECT_EQ(PollEnd::Stopping, scene.hold("late").get());
}

// What is queued between the look into the queue and the wait must not be missed.
TEST(HeldPollsTest, NoCommandIsMissed) {
    PollScene scene;
    constexpr int kCommands = 2000;
    std::atomic<int> queued{0};
    const auto agent = [&]() -> Awaitable<int> {
        int seen = 0;
        while (seen < kCommands) {
            const auto poll = scene.polls->open("a");
            if (queued.load() == seen) {
                EXPECT_EQ(PollEnd::Woken, co_await scene.polls->wait(*poll));
            }
            seen = queued.load();
        }
        co_return seen;
    };
    auto seen = scene.network.spawn(agent());

    for (int number = 0; number < kCommands; ++number) {
        ++queued;
        scene.polls->wakeFromAnywhere("a");
    }

    EXPECT_EQ(kCommands, seen.get());
}

}  // namespace
}  // namespace kolvan::test
