// Ten thousand threads, of which one works. No other test of this kind runs at the same time: a
// machine has numbers for some ten thousand threads. To stop them all keeps it from other work,
// too.

#include "tests/profiler/support/StolenTime.h"
#include "tests/profiler/truth/TruthTest.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <string>

namespace kolvan::test {
namespace {

constexpr const char* kThreads = "10000";

class ProfileCrowdLongTest : public TruthTest {
protected:
    ProfileCrowdLongTest() {
        // Work of some seconds, which a busy machine stretches.
        constexpr std::chrono::seconds kMuch{280};
        patience = kMuch;
    }

    /// Expects the profile to show what one of the threads has worked, but for what it tells to be
    /// missing, and no more than the last sample before the work and the last one in it can be
    /// wrong.
    void expectWorkIsSeen(const std::string& output) const {
        const ReadProfile found = profile();
        const auto told = static_cast<double>(numberBehind("workInTheCrowd", output));
        const auto seen = static_cast<double>(found.nanoseconds(
            [](const ReadProfile::Sample& one) { return one.contains("workInTheCrowd"); }));
        const rapidjson::Document document = summary();
        const auto& figures = document["profile"];
        const double missing =
            (figures["accountedSeconds"].GetDouble() - figures["sampledSeconds"].GetDouble()) * 1e9;
        double longest = 0;
        for (const ReadProfile::Sample& sample : found.samples) {
            longest = std::max(longest, static_cast<double>(sample.nanoseconds) /
                                            static_cast<double>(sample.count));
        }
        EXPECT_GE(seen + missing + 2 * longest, 0.95 * told);
        EXPECT_LE(seen, 1.01 * told + 2 * longest + sinceTheBegin.nanoseconds());
    }

private:
    const StolenTime sinceTheBegin;
};

std::string nameOfEngine(const testing::TestParamInfo<const char*>& info) {
    return info.param;
}

INSTANTIATE_TEST_SUITE_P(, ProfileCrowdLongTest, testing::Values("perf", "ptrace"), nameOfEngine);

TEST_P(ProfileCrowdLongTest, CommandThatBeginsTenThousandThreadsIsProfiled) {
    const Program& collector = collect({"crowd", kThreads});

    expectWorkIsSeen(collector.output());
}

TEST_P(ProfileCrowdLongTest, ProcessOfTenThousandThreadsIsProfiledAsFarAsItIsAllowed) {
    Program target({"crowd-forever", kThreads}, KOLVAN_TRUTH_FIXTURE, patience);
    target.waitFor(1, "gathered");
    Program collector(options({"--pid", std::to_string(target.id())}), KOLVAN_TRCAP_PATH, patience);
    collector.waitFor(3, "truth::forever");

    collector.signal(SIGTERM);

    EXPECT_EQ(5, collector.finish()) << collector.errors();
    expectWhole("terminated");
    EXPECT_GT(profile().total("forever"), 0);
    EXPECT_GE(summary()["threadsMax"].GetInt(), 10'001);
    EXPECT_EQ(0, ::kill(target.id(), 0));
}

}  // namespace
}  // namespace kolvan::test
