// What the profile says of programs whose truth is known. Shares are compared, not times: a slow
// machine makes them no different.

#include "tests/profiler/truth/TruthTest.h"
#include "tests/support/PrivateMounts.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <string_view>

#include <sys/mount.h>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;
using Sample = ReadProfile::Sample;

class ProfileTruthTest : public TruthTest {
protected:
    double share(const char* name) const { return summary()["profile"][name].GetDouble(); }
};

std::string nameOfEngine(const testing::TestParamInfo<const char*>& info) {
    return info.param;
}

INSTANTIATE_TEST_SUITE_P(, ProfileTruthTest, testing::Values("perf", "ptrace"), nameOfEngine);

TEST_P(ProfileTruthTest, HotFunctionHasTheShareOfItsSteps) {
    collect({"hot"});

    EXPECT_NEAR(0.89, profile().self("hotFunction"), 0.08);
    EXPECT_NEAR(0.11, profile().self("otherFunction"), 0.08);
    const rapidjson::Document found = summary();
    const auto& hottest = found["profile"]["top"][0];
    EXPECT_STREQ("truth::(anonymous namespace)::hotFunction(unsigned long)",
                 hottest["function"].GetString());
    EXPECT_NEAR(0.89, hottest["selfShare"].GetDouble(), 0.08);
}

TEST_P(ProfileTruthTest, NearlyAllProcessorTimeIsSampled) {
    collect({"hot"});

    EXPECT_NEAR(1.0, share("coverage"), 0.3);
    // Some are lost where others keep the profiler from its processor for long.
    const rapidjson::Document found = summary();
    EXPECT_LE(found["profile"]["lost"].GetInt(), found["profile"]["samples"].GetInt() / 20);
    EXPECT_GE(share("rootShare"), 0.99);
}

TEST_P(ProfileTruthTest, WaitersAreFoundWhereTheyWaitForTheLock) {
    const Program& collector = collectCommand(fixture({"lock"}), {"--profile", "wait"});

    const ReadProfile found = profile();
    const auto ofWaiters = found.nanoseconds(
        [](const Sample& one) { return one.thread == "waiter" && one.contains("waitForTheLock"); });
    const auto ofTheHolder = found.nanoseconds(
        [](const Sample& one) { return one.thread == "holder" && one.contains("waitForTheLock"); });
    const auto truth = static_cast<double>(numberBehind("waited", collector.output()));
    EXPECT_NEAR(1.0, static_cast<double>(ofWaiters) / truth, 0.2);
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
    // code: the return address is the new one already, and the stack pointer is not.
    EXPECT_GE(share("rootShare"), 0.97);
    EXPECT_GE(profile().total("throwAndCatch"), 0.95);
    EXPECT_GE(profile().total("_Unwind_"), 0.5);
}

TEST_P(ProfileTruthTest, PluginsAtOneAddressKeepTheirNames) {
    collect({"plugins", KOLVAN_FIRST_PLUGIN, KOLVAN_SECOND_PLUGIN});

    EXPECT_NEAR(0.75, profile().self("firstPlugin"), 0.14);
    EXPECT_NEAR(0.25, profile().self("secondPlugin"), 0.14);
}

TEST_P(ProfileTruthTest, ProgramThatExecutesAnotherIsSeenBeforeAndBehind) {
    collect({"execute-another"});

    EXPECT_NEAR(0.5, profile().self("beforeExecution"), 0.12);
    EXPECT_NEAR(0.5, profile().self("behindExecution"), 0.12);
}

TEST_P(ProfileTruthTest, ChildrenAreIncluded) {
    collect({"fork-child"});

    const ReadProfile found = profile();
    EXPECT_NEAR(2.0 / 3, found.self("workOfTheChild"), 0.12);
    EXPECT_NEAR(1.0 / 3, found.self("workOfTheParent"), 0.12);
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

    const bool mounted = runWithPrivateMounts([&] {
        ASSERT_EQ(0, ::mount("tmpfs", debugDirectory.c_str(), "tmpfs", 0, nullptr));
        const fs::path place = debugDirectory / ".build-id" / id.substr(0, 2);
        fs::create_directories(place);
        run("objcopy --only-keep-debug " KOLVAN_TRUTH_FIXTURE " '" +
            (place / (id.substr(2) + ".debug")).string() + "'");
        collectCommand({program, "execute-another"});
    });

    if (!mounted) {
        GTEST_SKIP() << "the directory of debug files is the system's";
    }
    EXPECT_NEAR(0.5, profile().self("beforeExecution"), 0.12);
    EXPECT_NEAR(0.5, profile().self("behindExecution"), 0.12);
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
    collect({"short-threads"});

    std::set<pid_t> threads;
    const ReadProfile found = profile();
    for (const Sample& sample : found.samples) {
        if (sample.contains("shortLife")) {
            threads.insert(sample.threadId);
        }
    }
    EXPECT_GE(threads.size(), 1'900U);
    EXPECT_LE(threads.size(), 2'000U);
    EXPECT_GE(found.self("shortLife"), 0.9);
    EXPECT_GE(share("rootShare"), 0.99);
    // What a thread does before its first sample and behind its last one is nobody's; the coverage
    // has to say so.
    EXPECT_GE(share("coverage"), 0.3);
    EXPECT_LE(share("coverage"), 1.05);
}

}  // namespace
}  // namespace kolvan::test
