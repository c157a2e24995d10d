#include "companions/profiler/engine/PtraceEngine.h"

#include "companions/profiler/base/ExitCode.h"
#include "companions/profiler/engine/Tasks.h"
#include "tests/profiler/engine/EngineInChild.h"
#include "tests/profiler/engine/FixtureProcess.h"
#include "tests/profiler/engine/RecordedEvents.h"
#include "tests/profiler/engine/ToldTree.h"
#include "tests/profiler/support/ChildOfTest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::test {

namespace {

using profiler::EngineSettings;
using profiler::PtraceEngine;
using profiler::ThreadTurn;
using Kind = RecordedEvent::Kind;

std::string goUnder(PtraceEngine& engine, RecordedEvents& events, FixtureProcess& fixture) {
    fixture.say("go");
    EXPECT_TRUE(deliverUntil(engine, events, [&] { return fixture.hasLine(); }));
    return fixture.readLine();
}

/// The answer to a question while the engine goes on.
std::uint64_t askUnder(PtraceEngine& engine, RecordedEvents& events, FixtureProcess& fixture,
                       const std::string& question) {
    fixture.say(question);
    EXPECT_TRUE(deliverUntil(engine, events, [&] { return fixture.hasLine(); }));
    const std::string answer = fixture.readLine();
    return std::stoull(answer.substr(answer.find(' ') + 1));
}

double numberIn(const std::string& answer) {
    return std::stod(answer.substr(answer.find(' ') + 1));
}

/// Processor time that the system has counted for the threads of a process so far, in nanoseconds.
std::uint64_t cpuOfThreads(pid_t process) {
    std::uint64_t sum = 0;
    for (const pid_t thread : profiler::threadsOf(process)) {
        std::ifstream file("/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) +
                           "/schedstat");
        std::uint64_t nanoseconds = 0;
        file >> nanoseconds;
        sum += nanoseconds;
    }
    return sum;
}

/// What threads may have used since they were looked at without being looked at again.
constexpr std::uint64_t restOf(std::uint64_t threads) {
    return threads * 100'000;
}

std::set<pid_t> sampledThreads(const RecordedEvents& events) {
    std::set<pid_t> threads;
    for (const RecordedEvent& sample : events.of(Kind::Sample)) {
        threads.insert(sample.thread);
    }
    return threads;
}

/// Lets the engine have `rounds` of its looks.
void deliverRounds(PtraceEngine& engine, RecordedEvents& events, int rounds) {
    for (int round = 0; round < rounds; ++round) {
        pollfd entry{engine.descriptor(), POLLIN, 0};
        EXPECT_EQ(1, ::poll(&entry, 1, 60'000));
        engine.deliver(events);
    }
}

/// Whether a process does something: blocks until it has.
bool goesOn(FixtureProcess& fixture) {
    const std::uint64_t before = fixture.ask("progress");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (std::chrono::steady_clock::now() < deadline) {
        if (fixture.ask("progress") != before) {
            return true;
        }
    }
    return false;
}

bool nobodyIsTraced(pid_t process) {
    const auto threads = profiler::threadsOf(process);
    return std::all_of(threads.begin(), threads.end(),
                       [&](pid_t thread) { return tracerOf(process, thread) == 0; });
}

/// Blocks until all threads of a process are in this state.
bool allBecome(pid_t process, const std::string& states) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (std::chrono::steady_clock::now() < deadline) {
        const auto threads = profiler::threadsOf(process);
        if (std::all_of(threads.begin(), threads.end(), [&](pid_t thread) {
                return states.find(stateOf(process, thread)) != std::string::npos;
            })) {
            return true;
        }
    }
    return false;
}

void stopAndWait(pid_t process) {
    ASSERT_EQ(0, ::kill(process, SIGSTOP));
    siginfo_t info{};
    ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(process), &info, WSTOPPED));
}

}  // namespace

TEST(PtraceEngineTest, SamplesStandForTheTimeThatWasUsed) {
    FixtureProcess fixture({"burn-and-stay", "500", "2"});
    RecordedEvents events;
    PtraceEngine engine({});
    engine.attach(fixture.id(), events);
    const std::uint64_t before = cpuOfThreads(fixture.id());
    const auto used = [&] { return cpuOfThreads(fixture.id()) - before; };

    goUnder(engine, events, fixture);
    EXPECT_TRUE(deliverUntil(engine, events,
                             [&] { return events.sampledNanoseconds() + restOf(3) >= used(); }))
        << events.sampledNanoseconds() << " of " << used();
    EXPECT_LE(events.sampledNanoseconds(), used());
    engine.finish(events);

    EXPECT_LE(events.sampledNanoseconds(), engine.report().accountedNanoseconds);
    EXPECT_LE(engine.report().accountedNanoseconds, used());
    for (const RecordedEvent& sample : events.of(Kind::Sample)) {
        EXPECT_TRUE(sample.hasRegisters);
        EXPECT_LT(0U, sample.stackBytes);
    }
}

TEST(PtraceEngineTest, TimeOfThreadsThatWereNeverLookedAtIsAccounted) {
    FixtureProcess fixture({"brief", "1000", "300"});
    RecordedEvents events;
    PtraceEngine engine({});
    engine.attach(fixture.id(), events);

    const double used = numberIn(goUnder(engine, events, fixture));
    engine.finish(events);

    EXPECT_EQ(300U, events.count(Kind::Start));
    EXPECT_EQ(300U, events.count(Kind::End));
    EXPECT_NEAR(used, static_cast<double>(engine.report().accountedNanoseconds), used * 0.1);
    EXPECT_GT(used * 0.9, static_cast<double>(events.sampledNanoseconds()));
}

TEST(PtraceEngineTest, WaitsHaveAStackAndTwoTurns) {
    FixtureProcess fixture({"spin", "1"});
    RecordedEvents events;
    EngineSettings settings;
    settings.waits = true;
    PtraceEngine engine(settings);
    engine.attach(fixture.id(), events);

    EXPECT_TRUE(deliverUntil(engine, events, [&] { return events.count(Kind::Sample) >= 10; }));
    engine.finish(events);

    std::vector<RecordedEvent> ofFirst;
    for (const RecordedEvent& event : events.all()) {
        if (event.thread == fixture.id() && event.kind != Kind::Name) {
            ofFirst.push_back(event);
        }
    }
    ASSERT_LE(3U, ofFirst.size());
    for (std::size_t i = 0; i + 2 < ofFirst.size(); i += 3) {
        EXPECT_EQ(Kind::Turn, ofFirst[i].kind);
        EXPECT_EQ(ThreadTurn::Waits, ofFirst[i].turn);
        EXPECT_EQ(Kind::Sample, ofFirst[i + 1].kind);
        EXPECT_EQ(ThreadTurn::Runs, ofFirst[i + 2].turn);
        EXPECT_LT(ofFirst[i].time, ofFirst[i + 2].time);
    }
}

TEST(PtraceEngineTest, EverySignalOfTheTargetReachesIt) {
    constexpr std::uint64_t kSignals = 3000;
    FixtureProcess fixture({"spin", "2"});
    RecordedEvents events;
    PtraceEngine engine({});
    engine.attach(fixture.id(), events);

    std::uint64_t sent = 0;
    EXPECT_TRUE(deliverUntil(engine, events, [&] {
        for (int i = 0; i < 10 && sent < kSignals; ++i) {
            sent += ::sigqueue(fixture.id(), SIGRTMIN, {}) == 0 ? 1U : 0U;
        }
        return sent == kSignals && askUnder(engine, events, fixture, "signals") == kSignals;
    }));
    engine.finish(events);

    EXPECT_EQ(kSignals, fixture.ask("signals"));
    EXPECT_LT(0U, events.count(Kind::Sample));
}

TEST(PtraceEngineTest, SignalsThatArriveDuringTheEndReachTheTargetToo) {
    FixtureProcess fixture({"spin", "2"});
    std::uint64_t sent = 0;
    for (int round = 0; round < 50; ++round) {
        RecordedEvents events;
        PtraceEngine engine({});
        engine.attach(fixture.id(), events);
        for (int i = 0; i < 20; ++i) {
            sent += ::sigqueue(fixture.id(), SIGRTMIN, {}) == 0 ? 1U : 0U;
        }
        engine.finish(events);
    }

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (fixture.ask("signals") != sent && std::chrono::steady_clock::now() < deadline) {
    }
    EXPECT_EQ(sent, fixture.ask("signals"));
}

TEST(PtraceEngineTest, AStoppedTargetStaysStoppedAndGoesOn) {
    FixtureProcess fixture({"spin", "2"});
    RecordedEvents events;
    PtraceEngine engine({});
    engine.attach(fixture.id(), events);
    EXPECT_TRUE(deliverUntil(engine, events, [&] { return events.count(Kind::Sample) >= 5; }));

    ASSERT_EQ(0, ::kill(fixture.id(), SIGSTOP));
    EXPECT_TRUE(deliverUntil(engine, events, [&] {
        const auto threads = profiler::threadsOf(fixture.id());
        return std::all_of(threads.begin(), threads.end(),
                           [&](pid_t thread) { return stateOf(fixture.id(), thread) == 't'; });
    }));
    deliverRounds(engine, events, 3);
    const std::size_t before = events.count(Kind::Sample);
    deliverRounds(engine, events, 20);
    EXPECT_EQ(before, events.count(Kind::Sample));

    ASSERT_EQ(0, ::kill(fixture.id(), SIGCONT));
    EXPECT_TRUE(
        deliverUntil(engine, events, [&] { return events.count(Kind::Sample) > before + 5; }));
    engine.finish(events);
    EXPECT_TRUE(goesOn(fixture));
}

TEST(PtraceEngineTest, ATargetThatWasStoppedBeforeIsStoppedAfterwards) {
    FixtureProcess fixture({"spin", "2"});
    stopAndWait(fixture.id());
    RecordedEvents events;
    PtraceEngine engine({});
    engine.attach(fixture.id(), events);
    deliverRounds(engine, events, 10);
    EXPECT_EQ(0U, events.count(Kind::Sample));
    engine.finish(events);

    EXPECT_TRUE(nobodyIsTraced(fixture.id()));
    EXPECT_TRUE(allBecome(fixture.id(), "T"));
    ASSERT_EQ(0, ::kill(fixture.id(), SIGCONT));
    EXPECT_TRUE(goesOn(fixture));
}

class PtraceEngineExecTest : public testing::TestWithParam<const char*> {};

TEST_P(PtraceEngineExecTest, AnotherProgramIsFollowed) {
    FixtureProcess fixture({"exec", GetParam(), "burn-and-stay", "200", "1"});
    RecordedEvents events;
    PtraceEngine engine({});
    engine.attach(fixture.id(), events);

    EXPECT_EQ("ready", goUnder(engine, events, fixture));
    const std::uint64_t before = events.sampledNanoseconds();
    const std::uint64_t usedBefore = cpuOfThreads(fixture.id());
    goUnder(engine, events, fixture);
    // Of what was used before, some may only be sampled now.
    EXPECT_TRUE(deliverUntil(engine, events, [&] {
        return events.sampledNanoseconds() - before + restOf(2) >=
               cpuOfThreads(fixture.id()) - usedBefore;
    }));
    EXPECT_LE(events.sampledNanoseconds() - before, cpuOfThreads(fixture.id()));
    engine.finish(events);

    ASSERT_EQ(1U, events.count(Kind::Exec));
    const auto exec = std::find_if(events.all().begin(), events.all().end(),
                                   [](const auto& event) { return event.kind == Kind::Exec; });
    EXPECT_TRUE(std::any_of(exec, events.all().end(), [](const auto& event) {
        return event.kind == Kind::Mapping && event.text == KOLVAN_ENGINE_FIXTURE;
    }));
    EXPECT_TRUE(nobodyIsTraced(fixture.id()));
}

INSTANTIATE_TEST_SUITE_P(From, PtraceEngineExecTest, testing::Values("main", "thread"));

TEST(PtraceEngineTest, ChildrenAreFollowedAndEnd) {
    FixtureProcess fixture({"tree", "100", "3"});
    RecordedEvents events;
    PtraceEngine engine({});
    engine.attach(fixture.id(), events);
    const auto [processes, used] = burnTree(engine, events, fixture);
    engine.finish(events);

    ASSERT_EQ(3U, processes.size());
    for (const pid_t process : processes) {
        // What it has done since its last look is nobody's: as much as between two others.
        std::uint64_t longest = 0;
        for (const RecordedEvent& sample : events.of(Kind::Sample)) {
            longest = sample.process == process ? std::max(longest, sample.nanoseconds) : longest;
        }
        const auto sampled = static_cast<double>(events.sampledNanoseconds(process));
        EXPECT_GE(sampled + 2 * static_cast<double>(longest), used.at(process));
        EXPECT_LE(sampled, used.at(process) * 1.01 + kUsedBesides);
    }
    const auto starts = events.of(Kind::Start);
    ASSERT_EQ(2U, starts.size());
    EXPECT_EQ(processes[0], starts[0].parent);
    EXPECT_EQ(processes[1], starts[1].parent);
    EXPECT_EQ(2U, events.count(Kind::End));
}

TEST(PtraceEngineTest, WithoutChildrenNothingOfThemIsSeen) {
    FixtureProcess fixture({"tree", "100", "2"});
    RecordedEvents events;
    EngineSettings settings;
    settings.children = false;
    PtraceEngine engine(settings);
    engine.attach(fixture.id(), events);
    (void)burnTree(engine, events, fixture);  // how much is another test's business
    engine.finish(events);

    EXPECT_LT(0U, events.count(Kind::Sample));
    for (const RecordedEvent& event : events.all()) {
        EXPECT_EQ(fixture.id(), event.process);
    }
}

TEST(PtraceEngineTest, ThreadsThatBeginDuringTheAttachmentAreLookedAt) {
    constexpr std::size_t kThreads = 60;
    FixtureProcess fixture({"grow", std::to_string(kThreads)});
    RecordedEvents events;
    PtraceEngine engine({});
    fixture.say("go");
    engine.attach(fixture.id(), events);

    EXPECT_TRUE(deliverUntil(engine, events, [&] {
        std::set<pid_t> spinning = sampledThreads(events);
        spinning.erase(
            fixture.id());  // the first thread waits, and is seen to run on a slow machine
        return spinning.size() == kThreads;
    }));
    engine.finish(events);
    EXPECT_TRUE(nobodyIsTraced(fixture.id()));
}

class PtraceEngineEndTest : public testing::TestWithParam<const char*> {};

TEST_P(PtraceEngineEndTest, WhoBeginsDuringTheEndIsLetGoToo) {
    FixtureProcess fixture({GetParam()});
    for (int round = 0; round < 50; ++round) {
        RecordedEvents events;
        PtraceEngine engine({});
        engine.attach(fixture.id(), events);
        ASSERT_TRUE(deliverUntil(engine, events, [&] { return events.count(Kind::End) >= 5; }));

        engine.finish(events);

        ASSERT_TRUE(nobodyIsTraced(fixture.id())) << round;
        ASSERT_TRUE(goesOn(fixture)) << round;
    }
}

INSTANTIATE_TEST_SUITE_P(Of, PtraceEngineEndTest, testing::Values("churn", "forks"));

TEST(PtraceEngineTest, TheFirstThreadMayHaveEnded) {
    FixtureProcess fixture({"leaderless"});
    EXPECT_TRUE(allBecome(fixture.id(), "ZRS"));
    RecordedEvents events;
    PtraceEngine engine({});
    engine.attach(fixture.id(), events);

    EXPECT_TRUE(deliverUntil(engine, events, [&] { return events.count(Kind::Sample) >= 10; }));
    engine.finish(events);
    EXPECT_TRUE(goesOn(fixture));
}

TEST(PtraceEngineTest, TheStatusOfAChildOfOursIsLeftToUs) {
    FixtureProcess fixture({"spin", "2"});
    RecordedEvents events;
    PtraceEngine engine({});
    engine.attach(fixture.id(), events);

    fixture.closeInput();
    EXPECT_TRUE(deliverUntil(engine, events, [&] { return events.count(Kind::End) == 3; }));
    const int status = fixture.wait();
    engine.finish(events);

    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(7, WEXITSTATUS(status));
}

TEST(PtraceEngineTest, TheStatusReachesTheParentWhileTheEngineGoesOn) {
    FixtureProcess fixture({"spin", "2"});
    EngineInChild engine(fixture.id());

    fixture.closeInput();
    const int status = fixture.wait();
    engine.finish();

    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(7, WEXITSTATUS(status));
}

TEST(PtraceEngineTest, TheParentSeesStopsWhileTheEngineGoesOn) {
    FixtureProcess fixture({"spin", "2"});
    EngineInChild engine(fixture.id());

    ASSERT_EQ(0, ::kill(fixture.id(), SIGSTOP));
    int status = 0;
    EXPECT_EQ(fixture.id(), ::waitpid(fixture.id(), &status, WUNTRACED));
    EXPECT_TRUE(WIFSTOPPED(status));
    ASSERT_EQ(0, ::kill(fixture.id(), SIGCONT));
    EXPECT_EQ(fixture.id(), ::waitpid(fixture.id(), &status, WCONTINUED));
    EXPECT_TRUE(WIFCONTINUED(status));

    EXPECT_TRUE(goesOn(fixture));
    engine.finish();
    EXPECT_TRUE(nobodyIsTraced(fixture.id()));
    EXPECT_TRUE(goesOn(fixture));
}

TEST(PtraceEngineTest, ATargetOutlivesAnEngineThatIsKilled) {
    for (const std::string mode : {"churn", "forks"}) {
        FixtureProcess fixture({mode});
        for (int round = 0; round < 20; ++round) {
            EngineInChild engine(fixture.id());
            ASSERT_TRUE(goesOn(fixture));

            engine.kill();

            ASSERT_TRUE(nobodyIsTraced(fixture.id()));
            ASSERT_TRUE(goesOn(fixture));
        }
    }
}

TEST(PtraceEngineTest, ATargetThatIsKilledEnds) {
    FixtureProcess fixture({"spin", "2"});
    RecordedEvents events;
    PtraceEngine engine({});
    engine.attach(fixture.id(), events);
    EXPECT_TRUE(deliverUntil(engine, events, [&] { return events.count(Kind::Sample) >= 5; }));

    ASSERT_EQ(0, ::kill(fixture.id(), SIGKILL));
    EXPECT_TRUE(deliverUntil(engine, events, [&] { return events.count(Kind::End) == 3; }));
    EXPECT_EQ(SIGKILL, fixture.wait());
    engine.finish(events);
}

TEST(PtraceEngineTest, ChildrenAreHandledAfterTheirParentHasEnded) {
    FixtureProcess fixture({"orphan"});
    RecordedEvents events;
    PtraceEngine engine({});
    engine.attach(fixture.id(), events);
    const std::string line = goUnder(engine, events, fixture);
    const auto orphan = static_cast<pid_t>(numberIn(line));
    EXPECT_TRUE(deliverUntil(engine, events, [&] {
        return stateOf(fixture.id(), fixture.id()) == 'Z' && events.count(Kind::End) == 1;
    }));

    const std::size_t before = events.count(Kind::Sample);
    EXPECT_TRUE(
        deliverUntil(engine, events, [&] { return events.count(Kind::Sample) > before + 5; }));
    ASSERT_EQ(0, ::kill(orphan, SIGKILL));
    EXPECT_TRUE(deliverUntil(engine, events, [&] { return events.count(Kind::End) == 2; }));
    engine.finish(events);
}

TEST(PtraceEngineTest, AStoppedChildThatIsNotTracedIsPassedOver) {
    FixtureProcess other({"spin", "1"});
    FixtureProcess fixture({"spin", "1"});
    RecordedEvents events;
    PtraceEngine engine({});
    engine.attach(fixture.id(), events);
    ASSERT_EQ(0, ::kill(other.id(), SIGSTOP));
    EXPECT_TRUE(allBecome(other.id(), "T"));

    EXPECT_TRUE(deliverUntil(engine, events, [&] { return events.count(Kind::Sample) >= 5; }));
    engine.finish(events);
}

TEST(PtraceEngineTest, ATargetThatHasEndedIsAFailure) {
    FixtureProcess fixture({"spin", "1"});
    const pid_t id = fixture.id();
    fixture.closeInput();
    (void)fixture.wait();
    RecordedEvents events;
    PtraceEngine engine({});

    EXPECT_THROW(engine.attach(id, events), profiler::Failure);
}

TEST(PtraceEngineTest, ASystemThatRefusesIsAFailureWithTheReason) {
    FixtureProcess fixture({"spin", "1"});
    const std::string result = resultOfChild([&] {
        refuseSystemCall(SYS_ptrace);
        RecordedEvents events;
        PtraceEngine engine({});
        engine.attach(fixture.id(), events);
        return std::string("attached");
    });

    EXPECT_EQ("exception: the system does not let this user trace process " +
                  std::to_string(fixture.id()) +
                  " (ptrace: Permission denied); its own user or root may, unless a debugger does "
                  "already or kernel.yama.ptrace_scope forbids it",
              result);
}

TEST(PtraceEngineTest, ATargetThatIsTracedAlreadyIsAFailureAndGoesOn) {
    FixtureProcess fixture({"spin", "1"});
    EngineInChild first(fixture.id());
    RecordedEvents events;
    PtraceEngine engine({});

    EXPECT_THROW(engine.attach(fixture.id(), events), profiler::Failure);
    EXPECT_TRUE(goesOn(fixture));
}

TEST(PtraceEngineTest, AnOrdinaryUserSeesHisOwnProgram) {
    if (!isReachableForOthers(KOLVAN_ENGINE_FIXTURE)) {
        GTEST_SKIP() << "An ordinary user cannot come to the programs of this build.";
    }
    const std::string result = resultOfChild([] {
        becomeOrdinaryUser();
        FixtureProcess fixture({"burn", "300", "1"});
        RecordedEvents events;
        PtraceEngine engine({});
        engine.attach(fixture.id(), events);
        goUnder(engine, events, fixture);
        engine.finish(events);
        return std::string(events.count(Kind::Sample) > 10 ? "samples" : "none");
    });

    EXPECT_EQ("samples", result);
}

}  // namespace kolvan::test
