#include "agent/RunningOperations.h"

#include "tests/agent/AgentWithFakes.h"
#include "tests/support/CapturedStream.h"
#include "tests/support/Gate.h"
#include "tests/support/ThreadShortage.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <unistd.h>

namespace cagnt1 {
namespace {

using kolvan::test::CapturedStream;
using kolvan::test::Gate;
using kolvan::test::threadCount;
using kolvan::test::ThreadShortage;
using kolvan::test::waitUntilThreadCountIsAtMost;

}  // namespace

TEST(RunningOperationsTest, EachRunsOnAThreadOfItsOwn) {
    std::promise<std::thread::id> first;
    std::promise<std::thread::id> second;
    Gate bothRun;
    RunningOperations operations;

    operations.launch([&] {
        first.set_value(std::this_thread::get_id());
        bothRun.wait();
    });
    operations.launch([&] {
        second.set_value(std::this_thread::get_id());
        bothRun.wait();
    });

    const std::thread::id one = first.get_future().get();
    const std::thread::id other = second.get_future().get();
    bothRun.open();
    EXPECT_NE(one, other);
    EXPECT_NE(std::this_thread::get_id(), one);
}

TEST(RunningOperationsTest, WaitingLastsUntilAllHaveEnded) {
    std::atomic<int> ended{0};
    Gate mayEnd;
    RunningOperations operations;
    for (int i = 0; i < 3; ++i) {
        operations.launch([&] {
            mayEnd.wait();
            ++ended;
        });
    }

    std::thread opener([&] { mayEnd.open(); });
    operations.waitForAll();

    EXPECT_EQ(3, ended);
    opener.join();
}

TEST(RunningOperationsTest, FailuresAreToldInTheOrderOfTheLaunches) {
    RunningOperations operations;
    Gate secondHasFailed;
    operations.launch([&] {
        secondHasFailed.wait();
        throw std::runtime_error("one");
    });
    operations.launch([&] {
        secondHasFailed.open();
        throw std::runtime_error("two");
    });
    const CapturedStream errors(STDERR_FILENO);

    operations.waitForAll();

    EXPECT_EQ("one\ntwo\n", errors.text());
}

TEST(RunningOperationsTest, FailureIsToldOnceHoweverManyRunAfterIt) {
    RunningOperations operations;
    operations.launch([] { throw std::runtime_error("early"); });
    for (int i = 0; i < 100; ++i) {
        operations.launch([] {});
    }
    const CapturedStream errors(STDERR_FILENO);

    operations.waitForAll();
    operations.waitForAll();

    EXPECT_EQ("early\n", errors.text());
}

TEST(RunningOperationsTest, ThreadsOfThoseThatHaveEndedAreJoinedWithoutAnyoneWaiting) {
    const std::size_t before = threadCount();
    RunningOperations operations;
    for (int i = 0; i < 50; ++i) {
        operations.launch([] {});
    }

    EXPECT_NO_THROW(waitUntilThreadCountIsAtMost(before));
}

TEST(RunningOperationsTest, FunctionGoesWithItsRunAlsoWhereThatFails) {
    const auto kept = std::make_shared<int>(0);
    RunningOperations operations;

    operations.launch([kept] { throw std::runtime_error("failed"); });

    while (kept.use_count() > 1) {
        std::this_thread::yield();
    }
    const CapturedStream errors(STDERR_FILENO);
    operations.waitForAll();
    EXPECT_EQ("failed\n", errors.text());
}

TEST(RunningOperationsTest, LaunchThatFindsNoThreadThrowsAndRunsNothing) {
    std::atomic<bool> hasRun{false};
    RunningOperations operations;
    ThreadShortage shortage;
    shortage.begin();

    EXPECT_THROW(operations.launch([&] { hasRun = true; }), std::system_error);

    shortage.end();
    operations.waitForAll();
    EXPECT_FALSE(hasRun);
}

TEST(RunningOperationsTest, OperationMayLaunchAnother) {
    std::promise<void> innerHasRun;
    RunningOperations operations;

    operations.launch([&] { operations.launch([&] { innerHasRun.set_value(); }); });

    innerHasRun.get_future().wait();
    operations.waitForAll();
}

}  // namespace cagnt1
