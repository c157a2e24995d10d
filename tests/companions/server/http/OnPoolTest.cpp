#include "companions/server/http/OnPool.h"

#include "tests/companions/server/support/NetworkThread.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace kolvan::test {
namespace {

using server::http::Awaitable;
using server::http::onPool;

TEST(OnPoolTest, CallIsMadeOnThePoolAndItsResultComesBack) {
    NetworkThread network;
    boost::asio::thread_pool pool(1);
    const auto work = [&]() -> Awaitable<bool> {
        const auto before = std::this_thread::get_id();
        const auto call = [] {
            return std::make_unique<std::thread::id>(std::this_thread::get_id());
        };
        const std::unique_ptr<std::thread::id> there = co_await onPool(pool, call);
        co_return before == std::this_thread::get_id() && *there != before;
    };

    EXPECT_TRUE(network.spawn(work()).get());
}

TEST(OnPoolTest, ExceptionComesBack) {
    NetworkThread network;
    boost::asio::thread_pool pool(1);
    const auto work = [&]() -> Awaitable<std::string> {
        try {
            const auto call = [] { throw std::runtime_error("no"); };
            co_await onPool(pool, call);
        } catch (const std::runtime_error& failure) {
            co_return failure.what();
        }
        co_return "";
    };

    EXPECT_EQ("no", network.spawn(work()).get());
}

TEST(OnPoolTest, ManyCoroutinesShareThePool) {
    NetworkThread network;
    boost::asio::thread_pool pool(2);
    const auto work = [&](int number) -> Awaitable<int> {
        int sum = 0;
        for (int turn = 0; turn < 100; ++turn) {
            const auto call = [number] { return number; };
            sum += co_await onPool(pool, call);
        }
        co_return sum;
    };
    std::vector<std::future<int>> sums;
    for (int number = 0; number < 50; ++number) {
        sums.push_back(network.spawn(work(number)));
    }

    for (int number = 0; number < 50; ++number) {
        EXPECT_EQ(100 * number, sums[static_cast<std::size_t>(number)].get());
    }
}

}  // namespace
}  // namespace kolvan::test
