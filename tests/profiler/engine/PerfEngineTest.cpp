#include "companions/profiler/engine/PerfEngine.h"

#include "companions/profiler/base/ExitCode.h"
#include "companions/profiler/engine/Tasks.h"
#include "tests/profiler/engine/FixtureProcess.h"
#include "tests/profiler/engine/RecordedEvents.h"
#include "tests/profiler/engine/ToldTree.h"
#include "tests/profiler/support/ChildOfTest.h"
#include "tests/profiler/support/StolenTime.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <map>
#include <set>
#include <string>

#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::test {

namespace {

using profiler::EngineReport;
using profiler::EngineSettings;
using profiler::PerfEngine;
using profiler::ThreadTurn;
using Kind = RecordedEvent::Kind;

constexpr double kTolerance = 0.1;

/// Expects the samples to stand for what was used: but for the last period of each of three
/// threads, for what the kernel has lost, and for what was stolen from a virtual machine, whose
/// timers do not expire meanwhile.
void expectMostIsSampled(double used, std::uint64_t sampled, const EngineReport& report,
                         const StolenTime& stolen) {
    const auto missing = static_cast<double>((report.lost + 3) * report.period);
    EXPECT_LT(used * 0.99, static_cast<double>(sampled) + missing + stolen.nanoseconds());
    EXPECT_GT(used * 1.05 + stolen.nanoseconds(), static_cast<double>(sampled));
}

/// The same of one process of a tree, with one thread.
void expectTreeIsSampled(double used, std::uint64_t sampled, const EngineReport& report,
                         const StolenTime& stolen) {
    const auto missing = static_cast<double>((report.lost + 1) * report.period);
    EXPECT_LT(used * 0.99, static_cast<double>(sampled) + missing + stolen.nanoseconds());
    EXPECT_GT(used * 1.01 + kUsedBesides + stolen.nanoseconds(), static_cast<double>(sampled));
}

bool areInOrder(const std::vector<RecordedEvent>& events) {
    return std::is_sorted(events.begin(), events.end(),
                          [](const auto& one, const auto& other) { return one.time < other.time; });
}

/// Processor time of a thread so far.
std::uint64_t cpuOf(pid_t process, pid_t thread) {
    std::ifstream file("/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) +
                       "/schedstat");
    std::uint64_t nanoseconds = 0;
    file >> nanoseconds;
    return nanoseconds;
}

/// Lets the fixture do what "go" tells it, and takes in everything up to its answer.
std::string goUnder(PerfEngine& engine, RecordedEvents& events, FixtureProcess& fixture) {
    fixture.say("go");
    EXPECT_TRUE(deliverUntil(engine, events, [&] { return fixture.hasLine(); }));
    return fixture.readLine();
}

std::uint64_t numberIn(const std::string& answer) {
    return std::stoull(answer.substr(answer.find(' ') + 1));
}

std::string joined(const std::vector<std::string>& sentences) {
    std::string text;
    for (const std::string& sentence : sentences) {
        text += sentence + "\n";
    }
    return text;
}

}  // namespace

TEST(PerfEngineTest, SamplesOfTwoProcessorsComeInTheOrderOfTime) {
    FixtureProcess fixture({"burn", "400", "2"});
    RecordedEvents events;
    PerfEngine engine({});
    engine.attach(fixture.id(), events);

    goUnder(engine, events, fixture);
    engine.finish(events);

    const auto samples = events.of(Kind::Sample);
    std::set<pid_t> threads;
    for (const RecordedEvent& sample : samples) {
        threads.insert(sample.thread);
    }
    EXPECT_LE(2U, threads.size());
    EXPECT_TRUE(areInOrder(samples));
    EXPECT_TRUE(areInOrder(events.of(Kind::Turn)));
}

TEST(PerfEngineTest, SamplesTimesPeriodComeCloseToTheTimeThatWasUsed) {
    FixtureProcess fixture({"burn", "500", "2"});
    const StolenTime stolen;
    RecordedEvents events;
    PerfEngine engine({});
    engine.attach(fixture.id(), events);

    const double used = static_cast<double>(numberIn(goUnder(engine, events, fixture)));
    engine.finish(events);

    const EngineReport report = engine.report();
    EXPECT_EQ(0U, report.lost);
    EXPECT_NEAR(used, static_cast<double>(report.accountedNanoseconds),
                used * 0.02 + stolen.nanoseconds());
    expectMostIsSampled(used, events.sampledNanoseconds(), report, stolen);
}

TEST(PerfEngineTest, SamplesBringRegistersStackAndKernelAddresses) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "An ordinary user may not look into the kernel.";
    }
    FixtureProcess fixture({"burn", "300", "1"});
    RecordedEvents events;
    PerfEngine engine({});
    engine.attach(fixture.id(), events);

    goUnder(engine, events, fixture);
    engine.finish(events);

    bool kernelWasSeen = false;
    for (const RecordedEvent& sample : events.of(Kind::Sample)) {
        EXPECT_TRUE(sample.hasRegisters);
        EXPECT_LT(0U, sample.stackBytes);
        for (const std::uint64_t address : sample.kernelAddresses) {
            kernelWasSeen = true;
            EXPECT_LT(0x8000'0000'0000'0000U, address);
        }
    }
    EXPECT_TRUE(kernelWasSeen);
}

TEST(PerfEngineTest, EveryThreadOfTwoMillisecondsBeginsEndsAndIsSampled) {
    constexpr std::size_t kThreads = 2000;
    FixtureProcess fixture({"brief", "2000", std::to_string(kThreads)});
    RecordedEvents events;
    PerfEngine engine({});
    engine.attach(fixture.id(), events);

    const double used = static_cast<double>(numberIn(goUnder(engine, events, fixture)));
    engine.finish(events);

    std::set<pid_t> sampled;
    for (const RecordedEvent& sample : events.of(Kind::Sample)) {
        sampled.insert(sample.thread);
    }
    EXPECT_EQ(kThreads, events.count(Kind::Start));
    EXPECT_EQ(kThreads, events.count(Kind::End));
    EXPECT_LE(kThreads * 95 / 100, sampled.size());
    EXPECT_NEAR(used, static_cast<double>(engine.report().accountedNanoseconds), used * kTolerance);
    RecordProperty("share",
                   std::to_string(static_cast<double>(events.sampledNanoseconds()) / used));
}

TEST(PerfEngineTest, ThreadsThatBeginDuringTheAttachmentAreWatchedOnce) {
    constexpr std::size_t kThreads = 60;
    FixtureProcess fixture({"grow", std::to_string(kThreads)});
    RecordedEvents events;
    PerfEngine engine({});
    fixture.say("go");
    engine.attach(fixture.id(), events);
    const auto sampledThreads = [&] {
        std::map<pid_t, std::uint64_t> byThread;
        for (const RecordedEvent& sample : events.of(Kind::Sample)) {
            byThread[sample.thread] += sample.nanoseconds;
        }
        return byThread;
    };

    EXPECT_TRUE(deliverUntil(engine, events, [&] {
        const auto byThread = sampledThreads();
        return byThread.size() == kThreads &&
               std::all_of(byThread.begin(), byThread.end(),
                           [](const auto& entry) { return entry.second > 20'000'000; });
    }));
    engine.finish(events);

    for (const auto& [thread, nanoseconds] : sampledThreads()) {
        EXPECT_GT(cpuOf(fixture.id(), thread) * 3 / 2, nanoseconds) << thread;
    }
}

TEST(PerfEngineTest, ProcessesThatBeginDuringTheAttachmentAreWatchedToo) {
    FixtureProcess fixture({"forks"});
    for (int round = 0; round < 20; ++round) {
        RecordedEvents events;
        PerfEngine engine({});
        engine.attach(fixture.id(), events);

        ASSERT_TRUE(deliverUntil(engine, events, [&] { return events.count(Kind::End) >= 20; }));
        engine.finish(events);
        ASSERT_GE(engine.report().accountedNanoseconds * 12 / 10, events.sampledNanoseconds());
    }
}

TEST(PerfEngineTest, ChildrenAndGrandchildrenAreSampled) {
    FixtureProcess fixture({"tree", "60", "3"});
    const StolenTime stolen;
    RecordedEvents events;
    PerfEngine engine({});
    engine.attach(fixture.id(), events);
    const auto [processes, used] = burnTree(engine, events, fixture);
    engine.finish(events);

    ASSERT_EQ(3U, processes.size());
    for (const pid_t process : processes) {
        expectTreeIsSampled(used.at(process), events.sampledNanoseconds(process), engine.report(),
                            stolen);
    }
    const auto starts = events.of(Kind::Start);
    ASSERT_EQ(2U, starts.size());
    EXPECT_EQ(processes[0], starts[0].parent);
    EXPECT_EQ(processes[1], starts[0].process);
    EXPECT_EQ(processes[1], starts[1].parent);
    EXPECT_EQ(processes[2], starts[1].process);
    EXPECT_EQ(2U, events.count(Kind::End));
}

TEST(PerfEngineTest, WithoutChildrenOnlyTheTargetIsSampledAndCounted) {
    FixtureProcess fixture({"tree", "100", "3"});
    const StolenTime stolen;
    RecordedEvents events;
    EngineSettings settings;
    settings.children = false;
    PerfEngine engine(settings);
    engine.attach(fixture.id(), events);
    const double used = burnTree(engine, events, fixture).used.at(fixture.id());
    engine.finish(events);

    for (const RecordedEvent& event : events.all()) {
        EXPECT_EQ(fixture.id(), event.process);
    }
    expectTreeIsSampled(used, events.sampledNanoseconds(), engine.report(), stolen);
    EXPECT_NEAR(used, static_cast<double>(engine.report().accountedNanoseconds),
                used * 0.02 + kUsedBesides + stolen.nanoseconds());
}

class PerfEngineExecTest : public testing::TestWithParam<const char*> {};

TEST_P(PerfEngineExecTest, AnotherProgramIsFollowed) {
    FixtureProcess fixture({"exec", GetParam(), "burn", "300", "1"});
    const StolenTime stolen;
    RecordedEvents events;
    PerfEngine engine({});
    engine.attach(fixture.id(), events);

    EXPECT_EQ("ready", goUnder(engine, events, fixture));
    const std::size_t before = events.count(Kind::Sample);
    const double used = static_cast<double>(numberIn(goUnder(engine, events, fixture)));
    engine.finish(events);

    ASSERT_EQ(1U, events.count(Kind::Exec));
    const auto exec = std::find_if(events.all().begin(), events.all().end(),
                                   [](const auto& event) { return event.kind == Kind::Exec; });
    EXPECT_EQ(fixture.id(), exec->process);
    EXPECT_TRUE(std::any_of(exec, events.all().end(), [](const auto& event) {
        return event.kind == Kind::Mapping && event.text == KOLVAN_ENGINE_FIXTURE;
    }));
    const auto sampled = (events.count(Kind::Sample) - before) * engine.report().period;
    expectMostIsSampled(used, sampled, engine.report(), stolen);
}

INSTANTIATE_TEST_SUITE_P(From, PerfEngineExecTest, testing::Values("main", "thread"));

TEST(PerfEngineTest, TheDescriptorTellsOfARingThatFills) {
    FixtureProcess fixture({"spin", "2"});
    RecordedEvents events;
    PerfEngine engine({});
    engine.attach(fixture.id(), events);
    pollfd entry{engine.descriptor(), POLLIN, 0};
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(1, ::poll(&entry, 1, 60'000)) << round;
        engine.deliver(events);
    }
    engine.finish(events);

    EXPECT_LT(100U, events.count(Kind::Sample));
    EXPECT_EQ(0U, engine.report().lost);
}

TEST(PerfEngineTest, CodeThatWasMappedWhileRecordsWereLostIsKnownAfterwards) {
    FixtureProcess fixture({"map-late", "1000"});
    RecordedEvents events;
    PerfEngine engine({});
    engine.attach(fixture.id(), events);

    fixture.say("go");
    const std::uint64_t code = numberIn(fixture.readLine());  // nobody reads the ring meanwhile

    EXPECT_TRUE(deliverUntil(engine, events, [&] {
        const auto mappings = events.of(Kind::Mapping);
        return std::any_of(mappings.begin(), mappings.end(),
                           [code](const RecordedEvent& mapping) { return mapping.begin == code; });
    }));
    EXPECT_LT(0U, engine.report().lost);
    engine.finish(events);
}

TEST(PerfEngineTest, WhatIsLostUpToTheEndIsTold) {
    constexpr std::size_t kMappings = 5000;  // the fixture makes so many
    FixtureProcess fixture({"map-late", "1000"});
    RecordedEvents events;
    PerfEngine engine({});
    engine.attach(fixture.id(), events);

    fixture.say("go");
    (void)fixture.readLine();  // nobody reads the ring meanwhile, nor is anything written later
    engine.finish(events);

    EXPECT_LE(kMappings, events.count(Kind::Mapping) + engine.report().lost);
}

TEST(PerfEngineTest, ATargetThatIsKilledLeavesItsSamples) {
    FixtureProcess fixture({"spin", "2"});
    RecordedEvents events;
    PerfEngine engine({});
    engine.attach(fixture.id(), events);
    EXPECT_TRUE(deliverUntil(engine, events, [&] { return events.count(Kind::Sample) >= 10; }));

    ASSERT_EQ(0, ::kill(fixture.id(), SIGKILL));
    EXPECT_EQ(SIGKILL, fixture.wait());
    EXPECT_TRUE(deliverUntil(engine, events, [&] { return events.count(Kind::End) == 3; }));
    engine.finish(events);

    EXPECT_LT(0U, engine.report().accountedNanoseconds);
}

TEST(PerfEngineTest, ATargetThatHasEndedBeforeTheAttachmentIsAFailure) {
    FixtureProcess fixture({"spin", "1"});
    const pid_t id = fixture.id();
    fixture.closeInput();
    (void)fixture.wait();
    RecordedEvents events;
    PerfEngine engine({});

    EXPECT_THROW(engine.attach(id, events), profiler::Failure);
}

TEST(PerfEngineTest, AStoppedTargetIsSampledWhenItGoesOn) {
    FixtureProcess fixture({"spin", "2"});
    ASSERT_EQ(0, ::kill(fixture.id(), SIGSTOP));
    siginfo_t info{};
    ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(fixture.id()), &info, WSTOPPED));
    RecordedEvents events;
    PerfEngine engine({});
    engine.attach(fixture.id(), events);
    engine.deliver(events);
    EXPECT_EQ(0U, events.count(Kind::Sample));
    EXPECT_EQ('T', stateOf(fixture.id(), fixture.id()));

    ASSERT_EQ(0, ::kill(fixture.id(), SIGCONT));

    EXPECT_TRUE(deliverUntil(engine, events, [&] { return events.count(Kind::Sample) >= 10; }));
    engine.finish(events);
}

TEST(PerfEngineTest, TheFirstThreadMayHaveEnded) {
    FixtureProcess fixture({"leaderless"});
    RecordedEvents events;
    PerfEngine engine({});
    engine.attach(fixture.id(), events);

    EXPECT_TRUE(deliverUntil(engine, events, [&] { return events.count(Kind::Sample) >= 10; }));
    engine.finish(events);
}

TEST(PerfEngineTest, WaitsBringTheStackBeforeTheTurn) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "An ordinary user is not shown the kernel's switches.";
    }
    FixtureProcess fixture({"brief", "100", "50"});
    RecordedEvents events;
    EngineSettings settings;
    settings.waits = true;
    PerfEngine engine(settings);
    engine.attach(fixture.id(), events);
    goUnder(engine, events, fixture);
    engine.finish(events);

    const RecordedEvent* last = nullptr;
    std::size_t waits = 0;
    for (const RecordedEvent& event : events.all()) {
        if (event.kind == Kind::Turn && event.thread == fixture.id() &&
            event.turn == ThreadTurn::Waits) {
            ASSERT_NE(nullptr, last);
            EXPECT_EQ(Kind::Sample, last->kind);
            ++waits;
        }
        if (event.thread == fixture.id() &&
            (event.kind == Kind::Sample || event.kind == Kind::Turn)) {
            last = &event;
        }
    }
    EXPECT_LT(0U, waits);
    EXPECT_EQ(0U, events.sampledNanoseconds());
}

TEST(PerfEngineTest, AnOrdinaryUserSeesHisOwnProgramWithoutTheKernel) {
    if (!isReachableForOthers(KOLVAN_ENGINE_FIXTURE)) {
        GTEST_SKIP() << "An ordinary user cannot come to the programs of this build.";
    }
    const std::string result = resultOfChild([] {
        becomeOrdinaryUser();
        FixtureProcess fixture({"burn", "200", "1"});
        RecordedEvents events;
        PerfEngine engine({});
        engine.attach(fixture.id(), events);
        goUnder(engine, events, fixture);
        engine.finish(events);
        const auto samples = events.of(Kind::Sample);
        const bool kernel = std::any_of(samples.begin(), samples.end(), [](const auto& sample) {
            return !sample.kernelAddresses.empty();
        });
        return std::string(samples.size() > 50 ? "samples" : "none") +
               (kernel ? " with the kernel\n" : " without the kernel\n") +
               joined(engine.report().limits);
    });

    EXPECT_EQ(
        "samples without the kernel\n"
        "Time in the kernel is not sampled: this user may not (kernel.perf_event_paranoid at most "
        "1, or CAP_PERFMON, helps).\n",
        result);
}

TEST(PerfEngineTest, AnOrdinaryUserIsToldThatWaitsHaveNoStacks) {
    if (!isReachableForOthers(KOLVAN_ENGINE_FIXTURE)) {
        GTEST_SKIP() << "An ordinary user cannot come to the programs of this build.";
    }
    const std::string result = resultOfChild([] {
        becomeOrdinaryUser();
        FixtureProcess fixture({"brief", "100", "20"});
        RecordedEvents events;
        EngineSettings settings;
        settings.waits = true;
        PerfEngine engine(settings);
        engine.attach(fixture.id(), events);
        goUnder(engine, events, fixture);
        engine.finish(events);
        return std::string(events.count(Kind::Turn) > 0 ? "turns, " : "no turns, ") +
               std::to_string(events.count(Kind::Sample)) + " samples\n" +
               joined(engine.report().limits);
    });

    EXPECT_EQ(
        "turns, 1 samples\n"  // of the thread that slept when it was attached to
        "How long threads wait is seen, but not where: this user may not "
        "(kernel.perf_event_paranoid at most 1, or CAP_PERFMON, helps).\n",
        result);
}

TEST(PerfEngineTest, AnotherUsersProcessIsRefusedWithTheReason) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "Takes two users.";
    }
    FixtureProcess fixture({"spin", "1"});
    const std::string result = resultOfChild([&] {
        becomeOrdinaryUser();
        RecordedEvents events;
        PerfEngine engine({});
        engine.attach(fixture.id(), events);
        return std::string("attached");
    });

    EXPECT_EQ(
        "exception: the system does not let this user sample this process, perf_event_open: "
        "Permission denied; its own user may, or root",
        result);
}

TEST(PerfEngineTest, ASystemThatRefusesIsAFailureWithTheReason) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "An ordinary user may be refused for another reason.";
    }
    FixtureProcess fixture({"spin", "1"});
    const std::string result = resultOfChild([&] {
        refuseSystemCall(SYS_perf_event_open);
        RecordedEvents events;
        PerfEngine engine({});
        engine.attach(fixture.id(), events);
        return std::string("attached");
    });

    EXPECT_EQ(
        "exception: the system does not let this user sample, perf_event_open: Permission denied; "
        "what helps is a filter of system calls, of a container for instance, that lets "
        "perf_event_open pass",
        result);
}

TEST(PerfEngineTest, FewDescriptorsLimitTheThreadsAndLeaveSomeFree) {
    constexpr unsigned kThreads = 100;
    FixtureProcess fixture({"spin", std::to_string(kThreads)});
    const std::string result = resultOfChild([&] {
        const rlimit few{100, 100};
        (void)::setrlimit(RLIMIT_NOFILE, &few);
        RecordedEvents events;
        PerfEngine engine({});
        engine.attach(fixture.id(), events);
        std::set<pid_t> sampled;
        const bool enough = deliverUntil(engine, events, [&] {
            for (const RecordedEvent& sample : events.of(Kind::Sample)) {
                sampled.insert(sample.thread);
            }
            return events.count(Kind::Sample) > 100;
        });
        std::string text = enough ? "samples\n" : "none\n";
        text += events.count(Kind::Mapping) > 0 ? "mappings\n" : "no mappings\n";
        int free = 0;
        while (::dup(0) >= 0) {
            ++free;
        }
        text += free >= 16 ? "descriptors left\n" : "no descriptors left\n";
        engine.finish(events);
        const std::string limits = joined(engine.report().limits);
        return text + limits.substr(limits.find(" of "));
    });

    EXPECT_EQ(
        "samples\nmappings\ndescriptors left\n"
        " of 101 threads are not sampled: Too many open files; a higher limit of open files "
        "(ulimit -n) helps.\n",
        result);
}

TEST(PerfEngineTest, LittleLockedMemoryMakesSmallerRings) {
    if (!isReachableForOthers(KOLVAN_ENGINE_FIXTURE)) {
        GTEST_SKIP() << "An ordinary user cannot come to the programs of this build.";
    }
    std::ifstream file("/proc/sys/kernel/perf_event_mlock_kb");
    std::string kilobytes;
    file >> kilobytes;
    if (::geteuid() != 0 || kilobytes != "516" || ::sysconf(_SC_NPROCESSORS_CONF) > 8) {
        GTEST_SKIP() << "What a user without programs may lock is not known, or enough.";
    }
    const std::string result = resultOfChild([] {
        const rlimit none{0, 0};
        (void)::setrlimit(RLIMIT_MEMLOCK, &none);
        becomeOrdinaryUser();
        FixtureProcess fixture({"burn", "200", "2"});
        RecordedEvents events;
        PerfEngine engine({});
        engine.attach(fixture.id(), events);
        goUnder(engine, events, fixture);
        engine.finish(events);
        return (events.count(Kind::Sample) > 50 ? "samples\n" : "none\n") +
               joined(engine.report().limits);
    });

    EXPECT_EQ(
        "samples\n"
        "Only 512 KiB of memory for samples a processor: more locked memory (ulimit -l, "
        "kernel.perf_event_mlock_kb) loses fewer.\n"
        "Time in the kernel is not sampled: this user may not (kernel.perf_event_paranoid at most "
        "1, or CAP_PERFMON, helps).\n",
        result);
}

}  // namespace kolvan::test
