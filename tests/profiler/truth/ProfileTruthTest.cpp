// What the profile says of programs that tell the truth about themselves: the processor time that
// the system has counted for each of their functions. A machine that is slow, or busy with others,
// changes the truth and the profile alike.

#include "tests/profiler/support/StolenTime.h"
#include "tests/profiler/truth/TruthTest.h"
#include "tests/support/PrivateMounts.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <numeric>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <sys/mount.h>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;
using Sample = ReadProfile::Sample;

constexpr double kSigmas = 4;

/// The nanoseconds that a sample stands for, as the time between two looks is met by a moment that
/// does not know of them: long ones more often than short ones. Root of the mean square.
double usualSample(const ReadProfile& profile) {
    double squares = 0;
    double all = 0;
    for (const Sample& sample : profile.samples) {
        const auto nanoseconds = static_cast<double>(sample.nanoseconds);
        const double each = nanoseconds / static_cast<double>(sample.count);
        squares += nanoseconds * each * each;
        all += nanoseconds;
    }
    return all == 0 ? 0 : std::sqrt(squares / all);
}

class ProfileTruthTest : public TruthTest {
protected:
    double share(const char* name) const { return summary()["profile"][name].GetDouble(); }

    /// How many threads have samples in a function.
    std::size_t threadsSeenIn(const std::string& function) const {
        std::set<pid_t> threads;
        for (const Sample& sample : profile().samples) {
            if (sample.contains(function)) {
                threads.insert(sample.threadId);
            }
        }
        return threads.size();
    }

    /// The same, with those whose samples were lost, or fell into time that was stolen.
    double mostThatMayBeSeen(const std::string& function, const StolenTime& stolen) const {
        return static_cast<double>(threadsSeenIn(function)) + share("lost") +
               stolen.nanoseconds() / usualSample(profile());
    }

    /// Expects functions of the fixture to have shares of the profile like those of the processor
    /// time that it has told of them in `output`, and nearly all of it together.
    ///
    /// A sample stands for all that its thread has done since the one before it. So each change
    /// from one function to another one, and each end, puts a part of one sample into the wrong
    /// one: anything between nothing and all of it, whose mean square is a third. What is missing
    /// altogether, because there was no room for it, is missing anywhere, and how much that may be
    /// is another test's business. Time that was stolen since the test began may stand in one
    /// function's samples, and be missing from another's.
    void expectTrueShares(const std::string& output, const std::vector<std::string>& functions,
                          int changes) const {
        const ReadProfile found = profile();
        std::vector<double> told;
        std::vector<double> sampled;
        for (const std::string& function : functions) {
            told.push_back(static_cast<double>(numberBehind(function, output)));
            sampled.push_back(static_cast<double>(found.nanoseconds(
                [&](const Sample& sample) { return sample.contains(function); })));
        }
        const double allTold = std::accumulate(told.begin(), told.end(), 0.0);
        const double allSampled = std::accumulate(sampled.begin(), sampled.end(), 0.0);
        const double missing = std::max(0.0, allTold - allSampled);
        const double wrong = kSigmas * usualSample(found) * std::sqrt(changes / 3.0);
        for (std::size_t i = 0; i < functions.size(); ++i) {
            EXPECT_NEAR(told[i] / allTold, sampled[i] / allSampled,
                        (wrong + missing + sinceTheBegin.nanoseconds()) / allTold)
                << functions[i];
        }
        const auto all = found.nanoseconds([](const Sample&) { return true; });
        EXPECT_GE(allSampled / static_cast<double>(all), 0.95);
    }

private:
    const StolenTime sinceTheBegin;
};

// Of short threads on a busy machine one in twenty was seen to end before its timer came.
constexpr double kInTime = 0.8;

constexpr const char* kPeriod = "1001";  // microseconds, at the frequency that is usual

std::string nameOfEngine(const testing::TestParamInfo<const char*>& info) {
    return info.param;
}

INSTANTIATE_TEST_SUITE_P(, ProfileTruthTest, testing::Values("perf", "ptrace"), nameOfEngine);

TEST_P(ProfileTruthTest, HotFunctionHasTheShareOfItsTime) {
    const Program& collector = collect({"hot"});

    expectTrueShares(collector.output(), {"hotFunction", "otherFunction"}, 6);
    const rapidjson::Document found = summary();
    const auto& hottest = found["profile"]["top"][0];
    EXPECT_STREQ("truth::(anonymous namespace)::hotFunction(unsigned long)",
                 hottest["function"].GetString());
    EXPECT_NEAR(profile().self("hotFunction"), hottest["selfShare"].GetDouble(), 0.001);
    EXPECT_GE(profile().self("hotFunction") / profile().total("hotFunction"), 0.9);
}

TEST_P(ProfileTruthTest, NearlyAllProcessorTimeIsSampled) {
    const StolenTime stolen;
    const Program& collector = collect({"hot"});

    const auto told = static_cast<double>(numberBehind("hotFunction", collector.output()) +
                                          numberBehind("otherFunction", collector.output()));
    const rapidjson::Document found = summary();
    const double sampled = found["profile"]["sampledSeconds"].GetDouble() * 1e9;
    const double accounted = found["profile"]["accountedSeconds"].GetDouble() * 1e9;
    const double lost = found["profile"]["lost"].GetDouble() * usualSample(profile());
    EXPECT_NEAR(sampled / accounted, share("coverage"), 0.001);
    EXPECT_GE(accounted, 0.999 * told);
    EXPECT_LE(accounted, 1.05 * told + stolen.nanoseconds());  // it takes some to begin
    EXPECT_LE(sampled, 1.005 * accounted);
    // What it has done since its last sample is nobody's; and how much is lost where others keep
    // the profiler from its processor for long, is told.
    EXPECT_GE(sampled + kSigmas * usualSample(profile()) + lost + stolen.nanoseconds(),
              0.99 * accounted);
    EXPECT_GE(share("rootShare"), 0.99);
}

TEST_P(ProfileTruthTest, WaitersAreFoundWhereTheyWaitForTheLock) {
    const Program& collector = collectCommand(fixture({"lock"}), {"--profile", "wait"});

    const ReadProfile found = profile();
    const auto ofWaiters = found.nanoseconds(
        [](const Sample& one) { return one.thread == "waiter" && one.contains("waitForTheLock"); });
    const auto ofTheHolder = found.nanoseconds(
        [](const Sample& one) { return one.thread == "holder" && one.contains("waitForTheLock"); });
    const auto waited = static_cast<double>(numberBehind("waited", collector.output()));
    const auto runnable = static_cast<double>(numberBehind("runnable", collector.output()));
    // Of each waiter, some looks are too many at the beginning, or too few at the end.
    const double looks = isPerf() ? 0 : kSigmas * usualSample(found) * 2;
    EXPECT_GE(static_cast<double>(ofWaiters), 0.99 * waited - runnable - looks);
    EXPECT_LE(static_cast<double>(ofWaiters), 1.01 * waited + looks);
    EXPECT_EQ(0, ofTheHolder);
}

TEST_P(ProfileTruthTest, StacksOf25KilobytesReachTheirRoot) {
    collect({"deep-stack"});

    EXPECT_GE(share("rootShare"), 0.99);
    EXPECT_GE(profile().self("workAtTheBottom"), 0.95);
    const auto whole = profile().nanoseconds(
        [](const Sample& one) { return one.isIn("workAtTheBottom") && one.contains("_start"); });
    EXPECT_GT(whole, 0);
}

TEST_P(ProfileTruthTest, RecursiveFunctionCountsOnceInTotal) {
    collect({"recursion"});

    const rapidjson::Document found = summary();
    const auto& hottest = found["profile"]["top"][0];
    EXPECT_NE(nullptr, std::strstr(hottest["function"].GetString(), "callItself"));
    EXPECT_GE(hottest["totalShare"].GetDouble(), 0.95);
    EXPECT_LE(hottest["totalShare"].GetDouble(), 1.0);
    std::ptrdiff_t deepest = 0;
    for (const Sample& sample : profile().samples) {
        deepest =
            std::max(deepest, std::count_if(sample.functions.begin(), sample.functions.end(),
                                            [](const std::string& name) {
                                                return name.find("callItself") != std::string::npos;
                                            }));
    }
    EXPECT_GT(deepest, 400);
    EXPECT_LE(deepest, 500);
}

TEST_P(ProfileTruthTest, ExceptionsOnTheirWayAreSeenUpToTheRoot) {
    collect({"exceptions"});

    // While the unwinder of the language lays out the frame that it goes back to, no stack fits the
    // code: the return address is the new one already, and the stack pointer is not. That is one
    // look in a hundred or less; a slow machine has few of them, of which chance makes more.
    const rapidjson::Document found = summary();
    const double looks = found["profile"]["samples"].GetDouble();
    const double cut = looks * (1 - share("rootShare"));
    EXPECT_LE(cut, 0.01 * looks + kSigmas * std::sqrt(0.01 * looks) + 1);
    EXPECT_GE(profile().total("throwAndCatch"), 0.95);
    EXPECT_GE(profile().total("_Unwind_"), 0.5);
}

TEST_P(ProfileTruthTest, PluginsAtOneAddressKeepTheirNames) {
#ifdef __SANITIZE_THREAD__
    if (!isPerf()) {
        GTEST_SKIP()
            << "Reading what is mapped takes a multiple of its time under this sanitizer; "
               "so this engine reads it at a fraction of its looks, and sees a change late.";
    }
#endif
    const Program& collector = collect({"plugins", KOLVAN_FIRST_PLUGIN, KOLVAN_SECOND_PLUGIN});

    expectTrueShares(collector.output(), {"firstPlugin", "secondPlugin"}, 10);
}

TEST_P(ProfileTruthTest, ProgramThatExecutesAnotherIsSeenBeforeAndBehind) {
    const Program& collector = collect({"execute-another"});

    expectTrueShares(collector.output(), {"beforeExecution", "behindExecution"}, 2);
}

TEST_P(ProfileTruthTest, ChildrenAreIncluded) {
    const Program& collector = collect({"fork-child"});

    expectTrueShares(collector.output(), {"workOfTheChild", "workOfTheParent"}, 2);
    const ReadProfile found = profile();
    std::set<pid_t> processes;
    for (const Sample& sample : found.samples) {
        processes.insert(sample.process);
    }
    EXPECT_EQ(2U, processes.size());
}

TEST_P(ProfileTruthTest, ChildrenAreLeftOutWhereTheyAreNotWanted) {
    collect({"fork-child"}, {"--no-children"});

    EXPECT_EQ(0.0, profile().self("workOfTheChild"));
    EXPECT_GE(profile().self("workOfTheParent"), 0.9);
}

/// Runs a shell command, which has to succeed.
void run(const std::string& command) {
    ASSERT_EQ(0, std::system(command.c_str())) << command;
}

/// The build-id of a program, in hexadecimal digits.
std::string buildIdOf(const std::string& program, const std::string& scratch) {
    constexpr std::size_t kNoteHeader = 16;  // sizes, type and "GNU"
    run("objcopy --dump-section .note.gnu.build-id='" + scratch + "' '" + program + "' /dev/null");
    std::string digits;
    for (const char byte : readFile(scratch).substr(kNoteHeader)) {
        constexpr std::string_view kDigits = "0123456789abcdef";
        const auto value = static_cast<unsigned char>(byte);
        digits += {kDigits[value / 16], kDigits[value % 16]};
    }
    return digits;
}

TEST_P(ProfileTruthTest, StrippedProgramIsNamedByTheDebugFileOfItsBuildId) {
    const fs::path debugDirectory = "/usr/lib/debug";
    if (!fs::exists(debugDirectory)) {
        GTEST_SKIP() << "there is no " << debugDirectory << " to mount something on";
    }
    const std::string program = directory.entry("stripped");
    run("strip -o '" + program + "' " KOLVAN_TRUTH_FIXTURE);
    const std::string id = buildIdOf(program, directory.entry("note"));

    std::string output;
    const bool mounted = runWithPrivateMounts([&] {
        ASSERT_EQ(0, ::mount("tmpfs", debugDirectory.c_str(), "tmpfs", 0, nullptr));
        const fs::path place = debugDirectory / ".build-id" / id.substr(0, 2);
        fs::create_directories(place);
        run("objcopy --only-keep-debug " KOLVAN_TRUTH_FIXTURE " '" +
            (place / (id.substr(2) + ".debug")).string() + "'");
        output = collectCommand({program, "execute-another"}).output();
    });

    if (!mounted) {
        GTEST_SKIP() << "the directory of debug files is the system's";
    }
    expectTrueShares(output, {"beforeExecution", "behindExecution"}, 2);
}

TEST_P(ProfileTruthTest, StrippedProgramKeepsItsAddresses) {
    const std::string program = directory.entry("stripped");
    run("strip -o '" + program + "' " KOLVAN_TRUTH_FIXTURE);

    collectCommand({program, "hot"});

    const rapidjson::Document found = summary();
    EXPECT_STREQ("[stripped+0x...]", found["profile"]["top"][0]["function"].GetString());
    EXPECT_LE(share("namedShare"), 0.05);
    EXPECT_GE(share("rootShare"), 0.99);
}

TEST_P(ProfileTruthTest, CodeOfACompilerAtRunTimeIsNamedByItsMap) {
    collect({"just-in-time"});

    const std::string map = "/tmp/perf-" + std::to_string(summary()["pid"].GetInt()) + ".map";
    EXPECT_TRUE(fs::remove(map));
    EXPECT_GE(profile().self("compiledAtRunTime"), 0.9);
    EXPECT_GE(share("rootShare"), 0.99);
    EXPECT_GE(profile().total("justInTime"), 0.9);
}

TEST_P(ProfileTruthTest, ThreadsOfTwoMillisecondsAreSeen) {
    if (!isPerf()) {
        GTEST_SKIP() << "they end between two looks of this engine";
    }
    const StolenTime stolen;
    const Program& collector = collect({"short-threads", "2000", kPeriod});

    EXPECT_GE(mostThatMayBeSeen("shortLife", stolen),
              kInTime * static_cast<double>(numberBehind("longer", collector.output())));
    EXPECT_LE(threadsSeenIn("shortLife"), 2'000U);
    EXPECT_GE(profile().self("shortLife"), 0.9);
    EXPECT_GE(share("rootShare"), 0.99);
    // What a thread does before its first sample and behind its last one is nobody's; the coverage
    // has to say so.
    EXPECT_GE(share("coverage"), 0.3);
    EXPECT_LE(share("coverage"), 1.05);
}

TEST_P(ProfileTruthTest, ThreadsShorterThanAPeriodHaveNoSamplesAndTheProfileSaysSo) {
    if (!isPerf()) {
        GTEST_SKIP() << "they end between two looks of this engine";
    }
    const Program& collector = collect({"short-threads", "300", kPeriod});

    // One in ten may take long to end, where a machine is busy.
    const auto shorter = static_cast<std::size_t>(numberBehind("shorter", collector.output()));
    EXPECT_LE(threadsSeenIn("shortLife"), 2'000 - shorter + 200);
    if (shorter == 2'000) {
        EXPECT_LE(share("coverage"), 0.5);
    }
    if (share("coverage") < 0.9 && summary()["profile"]["lost"].GetUint64() == 0) {
        const rapidjson::Document found = summary();
        const auto& limits = found["profile"]["limits"];
        ASSERT_NE(0U, limits.Size());
        EXPECT_STREQ(
            "Many threads ran for less than the time between two samples and have none; a higher "
            "--frequency sees more of them.",
            limits[limits.Size() - 1].GetString());
    }
}

TEST_P(ProfileTruthTest, AHigherFrequencySeesThreadsOfLessThanAMillisecond) {
    if (!isPerf()) {
        GTEST_SKIP() << "they end between two looks of this engine";
    }
    const StolenTime stolen;
    const Program& collector = collect({"short-threads", "600", "200"}, {"--frequency", "5000"});

    EXPECT_GE(mostThatMayBeSeen("shortLife", stolen),
              kInTime * static_cast<double>(numberBehind("longer", collector.output())));
    EXPECT_GE(share("coverage") + share("lost") * 200e-6 / share("accountedSeconds"), 0.3);
}

}  // namespace
}  // namespace kolvan::test
