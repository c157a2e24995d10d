// Targets that end, execute, stop or fork at any moment, and collections that are ended: the
// results are whole, and the exit status says what happened.

#include "tests/profiler/truth/TruthTest.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

class ProfileFaultsTest : public TruthTest {
protected:
    /// Milliseconds of work after which something happens, other ones in each run of the test.
    std::string someTime() {
        return std::to_string(std::uniform_int_distribution<int>(0, 150)(random));
    }

    /// The next collection leaves its results in the place of the last one.
    void forgetResults() const { fs::remove_all(directory.entry("result")); }

    const std::random_device::result_type seed = std::random_device()();
    std::mt19937 random{seed};
    const testing::ScopedTrace trace{__FILE__, __LINE__, "seed " + std::to_string(seed)};
};

std::string nameOfEngine(const testing::TestParamInfo<const char*>& info) {
    return info.param;
}

INSTANTIATE_TEST_SUITE_P(, ProfileFaultsTest, testing::Values("perf", "ptrace"), nameOfEngine);

/// The letter in /proc/PID/stat: 'R' runs, 'T' is stopped, 't' is stopped by a tracer.
char stateOf(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string text;
    std::getline(file, text);
    const std::size_t nameEnd = text.rfind(')');
    return nameEnd == std::string::npos ? '\0' : text.at(nameEnd + 2);
}

TEST_P(ProfileFaultsTest, CommandThatIsKilledAtAnyMomentLeavesAWholeProfile) {
    for (int round = 0; round < 8; ++round) {
        forgetResults();
        collectCommand(fixture({"kill-itself", someTime()}));

        expectWhole("target-ended");
        EXPECT_STREQ("ended by signal 9 (SIGKILL)", summary()["targetEnding"].GetString());
    }
}

TEST_P(ProfileFaultsTest, ProcessThatIsKilledAtAnyMomentLeavesAWholeProfile) {
    for (int round = 0; round < 8; ++round) {
        forgetResults();
        Program target({"kill-itself", someTime()}, KOLVAN_TRUTH_FIXTURE);
        Program collector(options({"--pid", std::to_string(target.id())}));

        // It may have ended before the collection could begin.
        const int status = collector.finish();
        if (status == 0) {
            expectWhole("target-ended");
        } else {
            EXPECT_EQ(3, status) << collector.errors();
        }
        EXPECT_EQ(128 + SIGKILL, target.finish());
    }
}

TEST_P(ProfileFaultsTest, ProgramThatExecutesAgainAndAgainLeavesAWholeProfile) {
    collect({"execute-often", "60"});

    EXPECT_GE(summary()["profile"]["rootShare"].GetDouble(), 0.8);
}

TEST_P(ProfileFaultsTest, ProcessThatStopsItselfStaysStopped) {
    Program target({"stop-itself", someTime()}, KOLVAN_TRUTH_FIXTURE);
    Program collector(options({"--pid", std::to_string(target.id())}));
    collector.waitForStart();
    target.waitFor(1, "stops");
    collector.waitFor(3, "<progress ");

    collector.signal(SIGTERM);

    EXPECT_EQ(5, collector.finish()) << collector.errors();
    expectWhole("terminated");
    EXPECT_EQ('T', stateOf(target.id()));
    target.signal(SIGCONT);
    EXPECT_EQ(0, target.finish());
}

TEST_P(ProfileFaultsTest, CommandThatStopsItselfIsEndedWithTheCollection) {
    collectCommand(fixture({"stop-itself", "50"}), {"--duration", "300ms"});

    expectWhole("duration");
}

TEST_P(ProfileFaultsTest, ProcessIsLeftAloneWhenItsCollectionIsKilled) {
    Program target({"forever"}, KOLVAN_TRUTH_FIXTURE);
    Program collector(options({"--pid", std::to_string(target.id())}));
    collector.waitFor(3, "<progress ");

    collector.signal(SIGKILL);

    EXPECT_EQ(128 + SIGKILL, collector.finish());
    EXPECT_EQ('R', stateOf(target.id()));
}

TEST_P(ProfileFaultsTest, TerminatedCollectionLeavesAWholeProfile) {
    Arguments arguments = options({"--"});
    const Arguments command = fixture({"forever"});
    arguments.insert(arguments.end(), command.begin(), command.end());
    Program collector(arguments);
    collector.waitFor(3, "truth::forever");  // it has samples; on a busy machine that takes a while

    collector.signal(SIGTERM);

    EXPECT_EQ(5, collector.finish()) << collector.errors();
    expectWhole("terminated");
    EXPECT_LT(0, profile().total("forever"));
}

TEST_P(ProfileFaultsTest, CollectionThatIsTerminatedAtAnyMomentLeavesAWholeProfile) {
    for (int round = 0; round < 8; ++round) {
        forgetResults();
        Arguments arguments = options({"--"});
        const Arguments command = fixture({"terminate-parent", someTime()});
        arguments.insert(arguments.end(), command.begin(), command.end());
        Program collector(arguments);

        EXPECT_EQ(5, collector.finish()) << collector.errors();
        expectWhole("terminated");
    }
}

TEST_P(ProfileFaultsTest, CollectionThatIsTerminatedAtItsBeginningLeavesAWholeProfileOrNothing) {
    Program target({"forever"}, KOLVAN_TRUTH_FIXTURE);
    for (int round = 0; round < 8; ++round) {
        forgetResults();
        Program collector(options({"--pid", std::to_string(target.id())}));
        // At once; when there is its first directory; when there is one for its results.
        constexpr std::array<const char*, 3> kSigns{"", "result", "result/data.0"};
        while (!fs::exists(directory.entry(kSigns.at(static_cast<std::size_t>(round) % 3)))) {
        }

        collector.signal(SIGTERM);

        const int status = collector.finish();
        if (status == 5) {
            expectWhole("terminated");
        } else {
            EXPECT_EQ(128 + SIGTERM, status) << collector.errors();
            EXPECT_FALSE(fs::exists(directory.entry("result/data.0")));
        }
    }
}

TEST_P(ProfileFaultsTest, BackgroundChildrenOfACommandEndWithTheCollection) {
    const Program& collector = collectCommand(fixture({"leave-child-behind"}));

    const auto child = static_cast<pid_t>(numberBehind("child", collector.output()));
    expectWhole("target-ended");
    EXPECT_EQ(-1, ::kill(child, 0));
    EXPECT_EQ(ESRCH, errno);
}

}  // namespace
}  // namespace kolvan::test
