#include "agent/RunningOperations.h"

#include "tests/agent/AgentWithFakes.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/CapturedStream.h"
#include "tests/support/Gate.h"
#include "tests/support/ThreadShortage.h"
#include "tests/support/ThreadStates.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include <unistd.h>

namespace cagnt1 {
namespace {

using kolvan::test::BackgroundCall;
using kolvan::test::CapturedStream;
using kolvan::test::Gate;
using kolvan::test::lookUntil;
using kolvan::test::stackCount;
using kolvan::test::ThreadShortage;
using kolvan::test::waitUntilThreadEnds;

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

TEST(RunningOperationsTest, WaitingDoesNotLastForAnOperationThatIsLaunchedMeanwhile) {
    Gate firstMayEnd;
    Gate secondMayEnd;
    RunningOperations operations;
    operations.launch([&] { firstMayEnd.wait(); });
    BackgroundCall waiting([&] {
        operations.waitForAll();
        return true;
    });
    ASSERT_TRUE(waiting.isBlocked());
    operations.launch([&] { secondMayEnd.wait(); });

    firstMayEnd.open();

    EXPECT_NO_THROW(lookUntil([&] { return waiting.hasEnded(); }, "the wait goes on"));
    secondMayEnd.open();
    EXPECT_TRUE(waiting.get());
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
    std::promise<pid_t> early;
    operations.launch([&] {
        early.set_value(::gettid());
        throw std::runtime_error("early");
    });
    waitUntilThreadEnds(early.get_future().get());
    for (int i = 0; i < 100; ++i) {
        operations.launch([] {});
    }
    const CapturedStream errors(STDERR_FILENO);

    operations.waitForAll();
    operations.waitForAll();

    EXPECT_EQ("early\n", errors.text());
}

// A thread that nobody has joined keeps its stack, which is two mappings, when it is gone itself.
TEST(RunningOperationsTest, StacksOfThoseThatHaveEndedGoWithoutALaunchAndWithoutAnyoneWaiting) {
    struct Operation {
        std::promise<pid_t> thread;
        Gate mayEnd;
    };
    constexpr std::size_t kOperations = 100;
    std::vector<Operation> all(kOperations);
    RunningOperations operations;
    std::vector<pid_t> threads;
    for (Operation& each : all) {
        operations.launch([&each] {
            each.thread.set_value(::gettid());
            each.mayEnd.wait();
        });
        threads.push_back(each.thread.get_future().get());
    }
    const std::size_t whileAllRun = stackCount();

    for (std::size_t i = 0; i < kOperations; ++i) {
        all[i].mayEnd.open();
        waitUntilThreadEnds(threads[i]);
    }

    // Some stacks are kept for threads to come.
    EXPECT_LT(stackCount(), whileAllRun - kOperations / 2);
}

TEST(RunningOperationsTest, FunctionGoesWithItsRunAlsoWhereThatFails) {
    const auto kept = std::make_shared<int>(0);
    RunningOperations operations;

    operations.launch([kept] { throw std::runtime_error("failed"); });

    EXPECT_NO_THROW(lookUntil([&] { return kept.use_count() == 1; }, "the function is kept"));
    const CapturedStream errors(STDERR_FILENO);
    operations.waitForAll();
    EXPECT_EQ("failed\n", errors.text());
}

TEST(RunningOperationsTest, DestructionTellsWhatHasFailed) {
    const CapturedStream errors(STDERR_FILENO);
    {
        RunningOperations operations;
        operations.launch([] { throw std::runtime_error("late"); });
    }

    EXPECT_EQ("late\n", errors.text());
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
