#include "agent/TaskThread.h"

#include "tests/support/CapturedStream.h"
#include "tests/support/Gate.h"
#include "tests/support/ThreadShortage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <unistd.h>

namespace cagnt1 {
namespace {

using kolvan::test::CapturedStream;
using kolvan::test::Gate;
using kolvan::test::ThreadShortage;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

/// Keeps what tasks have noted, and on which threads.
class Log {
public:
    void note(const std::string& text) {
        const std::lock_guard lock(mutex);
        texts.push_back(text);
        threads.push_back(std::this_thread::get_id());
    }

    std::vector<std::string> notes() {
        const std::lock_guard lock(mutex);
        return texts;
    }

    std::vector<std::thread::id> noters() {
        const std::lock_guard lock(mutex);
        return threads;
    }

private:
    std::mutex mutex;  // guards texts and threads
    std::vector<std::string> texts;
    std::vector<std::thread::id> threads;
};

TEST(TaskThreadTest, TasksRunInOrderOnOneOtherThread) {
    Log log;
    TaskThread tasks;

    EXPECT_TRUE(tasks.post([&] { log.note("a"); }));
    EXPECT_TRUE(tasks.post([&] { log.note("b"); }));
    tasks.finish();

    EXPECT_THAT(log.notes(), ElementsAre("a", "b"));
    EXPECT_NE(std::this_thread::get_id(), log.noters().front());
    EXPECT_THAT(log.noters(), Each(log.noters().front()));
}

TEST(TaskThreadTest, PostingDoesNotWaitForTheRunningTask) {
    Gate mayRun;
    Log log;
    TaskThread tasks;

    tasks.post([&] {
        mayRun.wait();
        log.note("a");
    });
    tasks.post([&] { log.note("b"); });

    EXPECT_THAT(log.notes(), IsEmpty());
    mayRun.open();
    tasks.finish();
    EXPECT_THAT(log.notes(), ElementsAre("a", "b"));
}

TEST(TaskThreadTest, ATaskMayPostAnother) {
    Gate posted;
    Log log;
    TaskThread tasks;

    tasks.post([&] {
        log.note("first");
        tasks.post([&] { log.note("second"); });
        posted.open();
    });
    posted.wait();
    tasks.finish();

    EXPECT_THAT(log.notes(), ElementsAre("first", "second"));
}

TEST(TaskThreadTest, NoTaskIsTakenAfterTheEnd) {
    Log log;
    TaskThread tasks;
    tasks.finish();

    EXPECT_FALSE(tasks.post([&] { log.note("late"); }));

    tasks.finish();
    EXPECT_THAT(log.notes(), IsEmpty());
}

TEST(TaskThreadTest, TheDestructorWaitsForTheTasks) {
    Log log;
    {
        TaskThread tasks;
        for (int i = 0; i < 100; ++i) {
            tasks.post([&] { log.note("a"); });
        }
    }

    EXPECT_EQ(100U, log.notes().size());
}

TEST(TaskThreadTest, OnlyItsTasksAreCurrent) {
    bool insideIsCurrent = false;
    TaskThread tasks;
    EXPECT_FALSE(tasks.isCurrent());

    tasks.post([&] { insideIsCurrent = tasks.isCurrent(); });
    tasks.finish();

    EXPECT_TRUE(insideIsCurrent);
    EXPECT_FALSE(tasks.isCurrent());
}

TEST(TaskThreadTest, WhatATaskThrowsIsPrintedAndTheRestIsRun) {
    const CapturedStream standardError(STDERR_FILENO);
    Log log;
    TaskThread tasks;

    tasks.post([] { throw std::runtime_error("Connection refused"); });
    tasks.post([&] { log.note("good"); });
    tasks.finish();

    EXPECT_THAT(log.notes(), ElementsAre("good"));
    EXPECT_EQ("Connection refused\n", standardError.text());
}

TEST(TaskThreadTest, WithoutAThreadThereIsNone) {
    ThreadShortage shortage;
    shortage.begin();

    EXPECT_THROW(TaskThread(), std::system_error);
}

TEST(TaskThreadTest, TasksOfManyThreadsAllRunAndKeepTheOrderOfEach) {
    constexpr int kThreads = 8;
    constexpr int kTasks = 500;
    std::vector<int> next(kThreads, 0);
    std::vector<std::string> outOfOrder;
    TaskThread tasks;

    std::vector<std::future<void>> posters;
    for (std::size_t poster = 0; poster < kThreads; ++poster) {
        posters.push_back(std::async(std::launch::async, [&, poster] {
            for (int i = 0; i < kTasks; ++i) {
                tasks.post([&, poster, i] {
                    if (next[poster]++ != i) {
                        outOfOrder.push_back(std::to_string(poster) + ":" + std::to_string(i));
                    }
                });
            }
        }));
    }
    for (std::future<void>& poster : posters) {
        poster.get();
    }
    tasks.finish();

    EXPECT_THAT(outOfOrder, IsEmpty());
    EXPECT_EQ(std::vector<int>(kThreads, kTasks), next);
}

}  // namespace
}  // namespace cagnt1
