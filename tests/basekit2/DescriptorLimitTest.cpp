#include "basekit2/process/DescriptorLimit.h"

#include "basekit2/UniqueFd.h"
#include "tests/basekit2/ProcessSupport.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

namespace kolvan::test {

using basekit2::result_t;
using basekit2::process::former_descriptor_limit;
using basekit2::process::raise_descriptor_limit;

namespace {

rlimit currentLimit() {
    rlimit limit{};
    EXPECT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
    return limit;
}

void setLimit(rlim_t soft, rlim_t hard) {
    const rlimit limit{soft, hard};
    EXPECT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
}

std::string textOf(rlim_t soft, rlim_t hard) {
    return std::to_string(soft) + '\n' + std::to_string(hard) + '\n';
}

/// Raising the limit cannot be taken back, so every case runs in a program of its own.
class DescriptorLimitTest : public ::testing::Test {
protected:
    DescriptorLimitTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    /// Ends this program with the outcome of `work`. What failed goes to standard error, because
    /// the framework reports nothing of the program that it started.
    [[noreturn]] static void finish(const std::function<void()>& work) {
        work();
        const ::testing::TestResult& result =
            *::testing::UnitTest::GetInstance()->current_test_info()->result();
        for (int part = 0; part < result.total_part_count(); ++part) {
            (void)std::fprintf(stderr, "%s\n", result.GetTestPartResult(part).message());
        }
        std::exit(result.Failed() ? 1 : 0);
    }
};

}  // namespace

TEST_F(DescriptorLimitTest, SoftLimitBecomesTheHardOne) {
    EXPECT_EXIT(finish([] {
                    setLimit(100, 500);

                    raise_descriptor_limit();

                    EXPECT_EQ(500U, currentLimit().rlim_cur);
                    EXPECT_EQ(500U, currentLimit().rlim_max);
                }),
                ::testing::ExitedWithCode(0), "");
}

TEST_F(DescriptorLimitTest, ChildrenHaveTheFormerLimitWhenTheyHaveBeenStarted) {
    EXPECT_EXIT(finish([] {
                    const TemporaryDirectory directory;
                    setLimit(100, 500);
                    raise_descriptor_limit();
                    Fifo fifo(directory.entry("fifo"));
                    ChildRun run;

                    EXPECT_EQ(result_t::no_error(),
                              run.start({"await", fifo.path(), "report", "1", "limit"}));
                    fifo.release();

                    EXPECT_EQ(0, run.wait());
                    EXPECT_EQ(textOf(100, 500), run.out->text());
                    EXPECT_EQ(500U, currentLimit().rlim_cur);
                }),
                ::testing::ExitedWithCode(0), "");
}

TEST_F(DescriptorLimitTest, ChildrenGetTheFormerLimitBackBeforeTheyLook) {
    EXPECT_EXIT(finish([] {
                    setLimit(100, 500);
                    raise_descriptor_limit();

                    for (int round = 0; round < 50; ++round) {
                        EXPECT_EQ(textOf(100, 500), outputOf({"report", "1", "limit"}));
                    }

                    EXPECT_EQ(500U, currentLimit().rlim_cur);
                }),
                ::testing::ExitedWithCode(0), "");
}

TEST_F(DescriptorLimitTest, ChildrenOfACrowdedProcessGetTheFormerLimitAllTheSame) {
    EXPECT_EXIT(finish([] {
                    setLimit(100, 500);
                    raise_descriptor_limit();
                    std::vector<basekit2::UniqueFd> crowd;
                    while (crowd.empty() || crowd.back().get() < 400) {
                        crowd.emplace_back(::dup(STDERR_FILENO));
                    }

                    EXPECT_EQ(textOf(100, 500), outputOf({"report", "1", "limit"}));
                }),
                ::testing::ExitedWithCode(0), "");
}

TEST_F(DescriptorLimitTest, NobodyElseFeelsTheLimitThatAChildGets) {
    EXPECT_EXIT(finish([] {
                    setLimit(100, 500);
                    raise_descriptor_limit();
                    std::vector<basekit2::UniqueFd> crowd;
                    while (crowd.empty() || crowd.back().get() < 100) {
                        crowd.emplace_back(::dup(STDERR_FILENO));
                    }
                    std::atomic<bool> startsAreOver{false};
                    std::atomic<int> refused{0};
                    std::thread opener([&] {
                        while (!startsAreOver) {
                            if (!basekit2::UniqueFd(::dup(STDERR_FILENO)) ||
                                currentLimit().rlim_cur != 500) {
                                ++refused;
                            }
                        }
                    });

                    std::vector<std::thread> starters;
                    for (int starter = 0; starter < 4; ++starter) {
                        starters.emplace_back([] {
                            for (int round = 0; round < 50; ++round) {
                                EXPECT_EQ(textOf(100, 500), outputOf({"report", "1", "limit"}));
                            }
                        });
                    }
                    for (std::thread& starter : starters) {
                        starter.join();
                    }
                    startsAreOver = true;
                    opener.join();

                    EXPECT_EQ(0, refused);
                }),
                ::testing::ExitedWithCode(0), "");
}

TEST_F(DescriptorLimitTest, ChildrenStartAlsoWhenTheHardLimitHasBeenLowered) {
    EXPECT_EXIT(finish([] {
                    setLimit(100, 500);
                    raise_descriptor_limit();

                    setLimit(80, 80);
                    EXPECT_EQ(textOf(80, 80), outputOf({"report", "1", "limit"}));
                }),
                ::testing::ExitedWithCode(0), "");
}

TEST_F(DescriptorLimitTest, ChildrenHaveOurLimitWhenItWasNotRaised) {
    EXPECT_EXIT(finish([] {
                    setLimit(120, 500);

                    EXPECT_EQ(textOf(120, 500), outputOf({"report", "1", "limit"}));
                    EXPECT_EQ(std::nullopt, former_descriptor_limit());
                }),
                ::testing::ExitedWithCode(0), "");
}

TEST_F(DescriptorLimitTest, LimitThatIsRaisedAlreadyStaysAsItIs) {
    EXPECT_EXIT(finish([] {
                    setLimit(500, 500);

                    raise_descriptor_limit();

                    EXPECT_EQ(500U, currentLimit().rlim_cur);
                    EXPECT_EQ(std::nullopt, former_descriptor_limit());
                    EXPECT_EQ(textOf(500, 500), outputOf({"report", "1", "limit"}));
                }),
                ::testing::ExitedWithCode(0), "");
}

}  // namespace kolvan::test
