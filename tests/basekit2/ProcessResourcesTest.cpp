#include "basekit2/process/IProcess.h"
#include "tests/basekit2/ProcessSupport.h"
#include "tests/support/ThreadShortage.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <future>
#include <set>
#include <string>
#include <vector>

namespace kolvan::test {

using basekit2::make_ref_counted;
using basekit2::ref_ptr_t;
using basekit2::result_t;
using basekit2::process::IProcess;

namespace {

/// Outcome of preparing and starting a child with few descriptors to be had.
struct Attempt {
    std::string failedAt;  // the first step that failed; empty when all went well
    result_t reason;
    std::string descriptorText;
    int exitCode;
    std::string output;
};

Attempt attemptWithRoom(std::size_t room) {
    Attempt attempt{"", result_t::no_error(), "unset", 0, ""};
    const auto reader = make_ref_counted<RecordingReader>();
    const ref_ptr_t<IProcess> process = IProcess::create();
    const auto step = [&](const std::string& name, auto call) {
        if (attempt.failedAt.empty()) {
            attempt.reason = call();
            attempt.failedAt = attempt.reason == result_t::no_error() ? "" : name;
        }
    };
    const CrowdedDescriptors crowd(room);
    step("feedback", [&] { return process->openOutputPipe(reader, attempt.descriptorText); });
    step("output", [&] { return process->connectOutputStream(1, reader); });
    step("error", [&] { return process->connectOutputStream(2, reader); });
    step("start", [&] {
        return startProgram(*process, KOLVAN_TEST_CHILD, {"text", "1", "started", "exit", "4"});
    });
    attempt.exitCode = withinDeadline([&] { return process->wait(); });
    attempt.output = reader->text();
    return attempt;
}

class ProcessResourcesTest : public AuditedProcessTest {};

}  // namespace

// From plenty downward: the sanitizers look into a type's table when they first meet it, for which
// they need a pipe themselves, and call the type broken when they get none.
TEST_F(ProcessResourcesTest, LackOfDescriptorsIsReportedByTheStepThatNeededOne) {
    constexpr std::size_t kPlenty = 30;
    std::set<std::string> failures;
    for (std::size_t room = kPlenty + 1; room-- > 0;) {
        const auto before = openDescriptors();

        const Attempt attempt = attemptWithRoom(room);

        EXPECT_EQ(before, openDescriptors()) << room;
        if (attempt.failedAt.empty()) {
            EXPECT_EQ(std::set<std::string>(), failures) << room;
            EXPECT_EQ(4, attempt.exitCode) << room;
            EXPECT_EQ("started", attempt.output) << room;
        } else {
            failures.insert(attempt.failedAt);
            EXPECT_EQ(result_t::from_errno(EMFILE), attempt.reason)
                << room << " at " << attempt.failedAt;
            EXPECT_EQ(-1, attempt.exitCode) << room;
            EXPECT_EQ("", attempt.output) << room;
        }
        ASSERT_TRUE(room < kPlenty || attempt.failedAt.empty()) << attempt.failedAt;
        EXPECT_EQ(attempt.failedAt == "feedback" ? "unset" : "3", attempt.descriptorText) << room;
    }

    for (const std::string step : {"feedback", "output", "error"}) {
        EXPECT_EQ(1U, failures.count(step)) << step;
    }
}

TEST_F(ProcessResourcesTest, StepThatFailedCanBeRepeated) {
    EXPECT_EQ("", outputOf({}));  // for the same reason as above
    const auto reader = make_ref_counted<RecordingReader>();
    const ref_ptr_t<IProcess> process = IProcess::create();
    {
        const CrowdedDescriptors crowd(0);
        ASSERT_EQ(result_t::from_errno(EMFILE), process->connectOutputStream(1, reader));
    }

    ASSERT_EQ(result_t::no_error(), process->connectOutputStream(1, reader));
    ASSERT_EQ(result_t::no_error(),
              startProgram(*process, KOLVAN_TEST_CHILD, {"text", "1", "text"}));

    EXPECT_EQ(0, withinDeadline([&] { return process->wait(); }));
    EXPECT_EQ("text", reader->text());
}

TEST_F(ProcessResourcesTest, LackOfAThreadIsReportedByTheStart) {
    const auto before = openDescriptors();
    ChildRun run;
    ThreadShortage shortage;
    shortage.begin();

    EXPECT_EQ(result_t::from_errno(EAGAIN), run.start({"text", "1", "started"}));

    EXPECT_EQ(before, openDescriptors());
    EXPECT_EQ(result_t::from_errno(ESRCH), run.process->terminate());
    shortage.end();
    EXPECT_EQ(-1, run.wait());
    EXPECT_EQ("", run.out->text());
    EXPECT_EQ(result_t::from_errno(EALREADY), run.start({"text", "1", "started"}));
}

TEST_F(ProcessResourcesTest, ChildWithoutPipesNeedsNoThread) {
    const ref_ptr_t<IProcess> process = IProcess::create();
    ThreadShortage shortage;
    shortage.begin();

    EXPECT_EQ(result_t::no_error(), startProgram(*process, KOLVAN_TEST_CHILD, {"exit", "4"}));

    shortage.end();
    EXPECT_EQ(4, withinDeadline([&] { return process->wait(); }));
}

TEST_F(ProcessResourcesTest, FailedStartHasClosedThePipes) {
    const auto before = openDescriptors();
    ChildRun run;

    EXPECT_EQ(result_t::from_errno(ENOENT), startProgram(*run.process, "/no/such/program", {}));

    EXPECT_EQ(before, openDescriptors());
    EXPECT_EQ(-1, run.wait());
}

TEST_F(ProcessResourcesTest, WaitForAChildThatWasNotStartedClosesThePipes) {
    const auto before = openDescriptors();
    ChildRun run;

    EXPECT_EQ(-1, run.wait());

    EXPECT_EQ(before, openDescriptors());
}

TEST_F(ProcessResourcesTest, ManyChildrenAtOnceDoNotDisturbEachOther) {
    constexpr int kThreads = 20;
    constexpr int kChildrenPerThread = 5;
    std::vector<std::future<void>> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.push_back(std::async(std::launch::async, [thread] {
            std::vector<ChildRun> runs(kChildrenPerThread);
            for (int i = 0; i < kChildrenPerThread; ++i) {
                const std::string mark = std::to_string(thread) + "." + std::to_string(i);
                ASSERT_EQ(result_t::no_error(),
                          runs[static_cast<std::size_t>(i)].start(
                              {"text", "1", "out " + mark, "text", "2", "err " + mark, "text", "3",
                               "feedback " + mark, "exit", std::to_string(thread * 10 + i)}));
            }
            for (int i = 0; i < kChildrenPerThread; ++i) {
                ChildRun& run = runs[static_cast<std::size_t>(i)];
                const std::string mark = std::to_string(thread) + "." + std::to_string(i);
                EXPECT_EQ(thread * 10 + i, run.wait());
                EXPECT_EQ("out " + mark, run.out->text());
                EXPECT_EQ("err " + mark, run.err->text());
                EXPECT_EQ("feedback " + mark, run.feedback->text());
            }
        }));
    }

    for (auto& thread : threads) {
        thread.get();
    }
}

TEST_F(ProcessResourcesTest, LongSequenceOfChildrenLeavesNothingBehind) {
    const auto before = openDescriptors();
    for (int round = 0; round < 100; ++round) {
        ASSERT_EQ("x", outputOf({"text", "1", "x"}));

        ChildRun failing;
        ASSERT_EQ(result_t::from_errno(ENOENT),
                  startProgram(*failing.process, "/no/such/program", {}));
        ASSERT_EQ(-1, failing.wait());
    }

    EXPECT_EQ(before, openDescriptors());
}

TEST_F(ProcessResourcesTest, DescriptorsAreReleasedWhenTheObjectIs) {
    const auto before = openDescriptors();
    {
        const ChildRun prepared;
        EXPECT_LT(before.size(), openDescriptors().size());
    }

    EXPECT_EQ(before, openDescriptors());
}

}  // namespace kolvan::test
