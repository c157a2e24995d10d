#include "companions/profiler/sampling/ProfileSession.h"

#include "companions/profiler/base/ExitCode.h"
#include "tests/profiler/engine/FixtureProcess.h"
#include "tests/profiler/support/ChildOfTest.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include <poll.h>
#include <sys/syscall.h>

namespace kolvan::test {

namespace {

using profiler::EngineChoice;
using profiler::ProfileSession;

/// Watches a fixture until there are samples of it, or for a minute.
/// @return the engine that has seen them, and each limit in a line: on a busy machine there may be
///         more of them at the end
std::string watch(EngineChoice choice, const FixtureProcess& fixture) {
    constexpr int kMilliseconds = 1;  // nobody here receives the signal that tells of stops
    ProfileSession session(choice, {}, fixture.id(), 0, false);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (session.coverage().samples < 5 && std::chrono::steady_clock::now() < deadline) {
        pollfd entry{session.descriptor(), POLLIN, 0};
        (void)::poll(&entry, 1, kMilliseconds);
        session.deliver();
    }
    session.finish();
    std::string text = session.profile().engine;
    text += session.coverage().samples < 5 ? " sees nothing\n" : "\n";
    for (const std::string& limit : session.coverage().limits) {
        text += limit + "\n";
    }
    return text;
}

constexpr const char* kSamplingIsRefused =
    "the system does not let this user sample, perf_event_open: Permission denied";
constexpr const char* kLimitOfPtrace =
    "Threads are stopped for each look (ptrace), 100 times a second at most; time in the kernel is "
    "not told apart, and a call that waits may be interrupted (EINTR).\n";

}  // namespace

TEST(ProfileSessionTest, TheBetterEngineIsTaken) {
    FixtureProcess fixture({"spin", "1"});

    const std::string result = watch(EngineChoice::Automatic, fixture);
    EXPECT_TRUE(result.starts_with("perf\n")) << result;  // an ordinary user has limits
}

TEST(ProfileSessionTest, TheOtherEngineStepsInAndSaysWhy) {
    FixtureProcess fixture({"spin", "1"});
    const std::string result = resultOfChild([&] {
        refuseSystemCall(SYS_perf_event_open);
        return watch(EngineChoice::Automatic, fixture);
    });

    EXPECT_TRUE(result.starts_with(std::string("ptrace\nThe better engine is not to be had: ") +
                                   kSamplingIsRefused))
        << result;
    EXPECT_NE(std::string::npos, result.find(std::string(".\n") + kLimitOfPtrace)) << result;
}

TEST(ProfileSessionTest, AnEngineThatIsInsistedOnHasNoSubstitute) {
    FixtureProcess fixture({"spin", "1"});
    const std::string result = resultOfChild([&] {
        refuseSystemCall(SYS_perf_event_open);
        return watch(EngineChoice::Perf, fixture);
    });

    EXPECT_TRUE(result.starts_with(std::string("exception: ") + kSamplingIsRefused)) << result;
}

TEST(ProfileSessionTest, TheOtherEngineCanBeInsistedOn) {
    FixtureProcess fixture({"spin", "1"});

    const std::string result = watch(EngineChoice::Ptrace, fixture);
    EXPECT_TRUE(result.starts_with(std::string("ptrace\n") + kLimitOfPtrace)) << result;
}

TEST(ProfileSessionTest, WhereNeitherIsAllowedTheLastReasonIsTold) {
    FixtureProcess fixture({"spin", "1"});
    const std::string result = resultOfChild([&] {
        refuseSystemCall(SYS_perf_event_open);
        refuseSystemCall(SYS_ptrace);
        return watch(EngineChoice::Automatic, fixture);
    });

    EXPECT_EQ("exception: the system does not let this user trace process " +
                  std::to_string(fixture.id()) +
                  " (ptrace: Permission denied); its own user or root may, unless a debugger does "
                  "already or kernel.yama.ptrace_scope forbids it",
              result);
}

}  // namespace kolvan::test
