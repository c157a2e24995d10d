#include "companions/profiler/machine/Access.h"

#include "tests/profiler/engine/EngineInChild.h"
#include "tests/profiler/engine/FixtureProcess.h"
#include "tests/profiler/support/ChildOfTest.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include <sys/syscall.h>
#include <unistd.h>

namespace kolvan::test {

namespace {

using profiler::Access;
using profiler::judge;
using profiler::Machine;
using profiler::Trial;
using profiler::tryProcess;
using Engine = Access::Engine;

Machine machineWith(int paranoid, int scope) {
    Machine machine;
    machine.sampling.paranoid = paranoid;
    machine.ptraceScope = scope;
    return machine;
}

}  // namespace

TEST(AccessTest, WhereNothingIsRefusedNothingIsMissing) {
    const Access access = judge(Trial(), machineWith(1, 0));

    EXPECT_EQ(Engine::Perf, access.engine);
    EXPECT_EQ("", access.reason);
    EXPECT_EQ("", access.help);
}

TEST(AccessTest, TheKernelMayBeRefusedAlone) {
    Trial trial;
    trial.samplingInKernelError = EACCES;

    const Access access = judge(trial, machineWith(2, 0));

    EXPECT_EQ(Engine::Perf, access.engine);
    EXPECT_EQ(
        "neither time in the kernel is seen nor where threads wait (kernel.perf_event_paranoid is "
        "2)",
        access.reason);
    EXPECT_EQ("kernel.perf_event_paranoid at most 1, or CAP_PERFMON", access.help);
}

TEST(AccessTest, MappingsThatCannotBeReadGiveNoNames) {
    Trial trial;
    trial.mappingsError = EACCES;

    const Access access = judge(trial, machineWith(2, 0));

    EXPECT_EQ(Engine::Perf, access.engine);
    EXPECT_EQ(
        "its functions get no names, as what it has mapped may not be read: Permission denied",
        access.reason);
    EXPECT_EQ("CAP_SYS_PTRACE", access.help);
}

TEST(AccessTest, StopsAreLeftWhereSamplingIsRefused) {
    Trial trial;
    trial.samplingError = EACCES;
    trial.samplingInKernelError = EACCES;
    for (const int paranoid : {3, 4}) {
        const Access access = judge(trial, machineWith(paranoid, 0));

        EXPECT_EQ(Engine::Ptrace, access.engine);
        EXPECT_EQ(
            "by stops only, 100 times a second at most; perf_event_open: Permission denied "
            "(kernel.perf_event_paranoid is " +
                std::to_string(paranoid) + ")",
            access.reason);
        EXPECT_EQ("kernel.perf_event_paranoid at most 2, or CAP_PERFMON", access.help);
    }
}

TEST(AccessTest, AFilterIsSuspectedWhereTheSettingAllowsIt) {
    Trial trial;
    trial.samplingError = EPERM;

    for (const int paranoid : {-1, 0, 1, 2}) {
        EXPECT_EQ(
            "a filter of system calls, of a container for instance, that lets perf_event_open pass",
            judge(trial, machineWith(paranoid, 0)).help);
    }
}

TEST(AccessTest, ARestrictionOfTracingIsNamed) {
    Trial trial;
    trial.samplingError = EACCES;
    trial.tracingError = EACCES;

    const Access access = judge(trial, machineWith(3, 1));

    EXPECT_EQ(Engine::None, access.engine);
    EXPECT_EQ(
        "perf_event_open: Permission denied (kernel.perf_event_paranoid is 3); "
        "kernel.yama.ptrace_scope is 1",
        access.reason);
    EXPECT_EQ(
        "kernel.perf_event_paranoid at most 2, or CAP_PERFMON; or kernel.yama.ptrace_scope 0, or "
        "to let kolvan-trcap start it",
        access.help);
}

TEST(AccessTest, ADebuggerIsInTheWayOfStopsOnly) {
    Trial trial;
    trial.tracer = 4711;
    EXPECT_EQ(Engine::Perf, judge(trial, machineWith(2, 0)).engine);
    trial.samplingError = EACCES;

    const Access access = judge(trial, machineWith(3, 0));

    EXPECT_EQ(Engine::None, access.engine);
    EXPECT_EQ(
        "a debugger traces it already, and perf_event_open: Permission denied "
        "(kernel.perf_event_paranoid is 3)",
        access.reason);
}

TEST(AccessTest, AChildIsTriedWithoutBeingDisturbed) {
    FixtureProcess fixture({"spin", "1"});

    const Trial trial = tryProcess(fixture.id());

    EXPECT_EQ(0, trial.samplingError);
    EXPECT_EQ(0, trial.tracingError);
    EXPECT_EQ(0, trial.mappingsError);
    EXPECT_EQ(0, trial.tracer);
    EXPECT_TRUE(trial.isOwn);
    EXPECT_EQ(0, tracerOf(fixture.id(), fixture.id()));
}

TEST(AccessTest, AProcessWhoseFirstThreadHasEndedCanBeProfiled) {
    FixtureProcess fixture({"leaderless"});
    while (stateOf(fixture.id(), fixture.id()) != 'Z') {
    }

    EXPECT_EQ(0, tryProcess(fixture.id()).samplingError);
}

TEST(AccessTest, WhatHasEndedIsNotThere) {
    FixtureProcess fixture({"spin", "1"});
    const pid_t id = fixture.id();
    fixture.closeInput();
    (void)fixture.wait();

    EXPECT_EQ(ESRCH, tryProcess(id).samplingError);
}

TEST(AccessTest, ATracerIsSeen) {
    FixtureProcess fixture({"spin", "1"});
    const EngineInChild engine(fixture.id());

    EXPECT_NE(0, tryProcess(fixture.id()).tracer);
}

TEST(AccessTest, AnotherUsersProcessIsRefused) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "Takes two users.";
    }
    FixtureProcess fixture({"spin", "1"});
    const std::string result = resultOfChild([&] {
        becomeOrdinaryUser();
        const Access access = judge(tryProcess(fixture.id()), profiler::readSettings());
        return (access.engine == Engine::None ? "no: " : "yes: ") + access.reason + ". " +
               access.help;
    });

    EXPECT_EQ("no: it belongs to another user, or has other rights. its own user may, or root",
              result);
}

TEST(AccessTest, ASystemThatRefusesSamplingLeavesStops) {
    FixtureProcess fixture({"spin", "1"});
    const std::string result = resultOfChild([&] {
        refuseSystemCall(SYS_perf_event_open);
        const Access access = judge(tryProcess(fixture.id()), machineWith(3, 0));
        return (access.engine == Engine::Ptrace ? "stops: " : "else: ") + access.reason;
    });

    EXPECT_EQ(
        "stops: by stops only, 100 times a second at most; perf_event_open: Permission denied "
        "(kernel.perf_event_paranoid is 3)",
        result);
}

}  // namespace kolvan::test
