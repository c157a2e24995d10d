#include "companions/server/serve/Chores.h"

#include "tests/companions/server/support/NetworkThread.h"

#include <boost/asio/thread_pool.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace kolvan::server {
namespace {

using namespace std::chrono_literals;

using testing::ElementsAre;
using testing::IsEmpty;

class ChoresTest : public testing::Test {
protected:
    ~ChoresTest() override {
        network.call([this] { chores.reset(); });
    }

    /// Whoever starts something stops before the end of the test: its work refers to it.
    void start(std::chrono::steady_clock::duration every, std::function<void()> work) {
        network.call([&] { chores->start("Work", every, std::move(work)); });
    }

    /// Blocks until all chores have ended.
    void stop() { network.spawn(stopAll()).get(); }

    std::vector<std::string> said() const {
        const std::lock_guard lock(mutex);
        return lines;
    }

    http::Awaitable<bool> stopAll() {
        co_await chores->stop();
        co_return true;
    }

    mutable std::mutex mutex;  // guards lines
    std::vector<std::string> lines;
    test::NetworkThread network;
    boost::asio::thread_pool threads{2};  // goes first
    std::unique_ptr<Chores> chores =
        std::make_unique<Chores>(network.executor(), threads, [this](std::string_view line) {
            const std::lock_guard lock(mutex);
            lines.emplace_back(line);
        });
};

TEST_F(ChoresTest, WorkIsDoneAtOnceAndAgain) {
    std::promise<void> third;
    std::atomic<int> turns = 0;

    start(1ms, [&] {
        if (++turns == 3) {
            third.set_value();
        }
    });

    EXPECT_EQ(std::future_status::ready, third.get_future().wait_for(120s));
    stop();
}

TEST_F(ChoresTest, OneThatWaitsForItsTurnEndsAtOnce) {
    std::promise<void> done;
    start(24h, [&] { done.set_value(); });
    done.get_future().wait();

    stop();

    EXPECT_THAT(said(), IsEmpty());
}

TEST_F(ChoresTest, EndWaitsForOneThatIsAtWork) {
    std::promise<void> begun;
    std::promise<void> mayEnd;
    std::atomic<bool> ended = false;
    start(24h, [&] {
        begun.set_value();
        mayEnd.get_future().wait();
        ended = true;
    });
    begun.get_future().wait();

    std::future<bool> stopped = network.spawn(stopAll());
    network.call([] {});  // it has been told to stop
    EXPECT_FALSE(ended);
    mayEnd.set_value();
    stopped.get();

    EXPECT_TRUE(ended);
}

TEST_F(ChoresTest, OneThatIsHeldUpDoesNotHoldUpAnother) {
    std::promise<void> release;
    std::shared_future<void> released(release.get_future());
    start(24h, [&] { released.wait(); });
    std::promise<void> done;

    start(24h, [&] { done.set_value(); });

    EXPECT_EQ(std::future_status::ready, done.get_future().wait_for(120s));
    release.set_value();
    stop();
}

TEST_F(ChoresTest, FailureIsToldOnceAndSoIsItsEnd) {
    std::promise<void> done;
    std::atomic<int> turns = 0;
    start(1ms, [&] {
        const int turn = ++turns;
        if (turn < 4 || turn == 6) {
            throw std::runtime_error("no luck");
        }
        if (turn == 8) {
            done.set_value();
        }
    });
    done.get_future().wait();
    stop();

    EXPECT_THAT(said(),
                ElementsAre("Work has failed, and is tried again: no luck", "Work works again",
                            "Work has failed, and is tried again: no luck", "Work works again"));
}

TEST_F(ChoresTest, StopWithoutChoresReturns) {
    stop();
    stop();
}

}  // namespace
}  // namespace kolvan::server
