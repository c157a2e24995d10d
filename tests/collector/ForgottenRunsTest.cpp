#include "collector/Collector.h"
#include "tests/collector/CollectorSupport.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <future>
#include <string>
#include <vector>

// What a collector keeps of its runs must not grow with their number: an agent lives for months.
// The list is looked at itself, so that this is seen under the sanitizers too, whose heap cannot be
// measured.

namespace kolvan::test {

using cagnt1::operations::Collector;
using cagnt1::operations::OperationMessenger;

namespace {

/// Number of runs that a collector lists. It takes no lock: nothing may run meanwhile.
std::size_t listedRuns(const Collector& collector);

// In an explicit instantiation any member may be named, private ones too.
template <auto Processes>
struct ListedRuns {
    friend std::size_t listedRuns(const Collector& collector) {
        return (collector.*Processes).size();
    }
};
template struct ListedRuns<&Collector::processes>;

class ForgottenRunsTest : public AuditedProcessTest {
protected:
    static constexpr int kRuns = 200;

    void run(int number) {
        OperationMessenger silent;
        ASSERT_EQ(
            number % 100,
            collector.execute({"text", "1", "x", "exit", std::to_string(number % 100)}, silent));
    }

    InstalledCollector installed;
    Collector collector{installed.installDirectory()};
};

// The list of a run that ends still has its own entry.
TEST_F(ForgottenRunsTest, ListNeverHoldsMoreThanTheLatestOfRunsThatFollowEachOther) {
    for (int number = 0; number < kRuns; ++number) {
        ASSERT_NO_FATAL_FAILURE(run(number));

        ASSERT_GE(1U, listedRuns(collector)) << "after " << number + 1 << " runs";
    }
}

TEST_F(ForgottenRunsTest, NextRunForgetsAllThatRanAtTheSameTime) {
    constexpr int kThreads = 10;
    std::vector<std::future<void>> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.push_back(std::async(std::launch::async, [this, thread] {
            for (int number = thread; number < kRuns; number += kThreads) {
                run(number);
            }
        }));
    }
    for (std::future<void>& thread : threads) {
        thread.get();
    }

    ASSERT_NO_FATAL_FAILURE(run(0));

    EXPECT_GE(1U, listedRuns(collector));
}

TEST_F(ForgottenRunsTest, RunsThatCouldNotBeStartedAreForgottenToo) {
    installed.setRunnable(false);
    OperationMessenger silent;
    for (int number = 0; number < kRuns; ++number) {
        ASSERT_EQ(-1, collector.execute({}, silent));

        ASSERT_GE(1U, listedRuns(collector));
    }
}

}  // namespace
}  // namespace kolvan::test
