#include "companions/profiler/machine/MachineCheck.h"

#include "tests/profiler/support/ChildOfTest.h"
#include "tests/profiler/support/Program.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <string>

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kolvan::test {

namespace {

using profiler::checkMachine;
using profiler::Finding;
using profiler::Machine;
using Grade = Finding::Grade;

constexpr std::size_t kWide = 100;

/// A machine on which nothing is missing.
Machine generousMachine() {
    Machine machine;
    machine.name = "host";
    machine.kernel = "6.1.0";
    machine.processors = 4;
    machine.user = "root";
    machine.capabilities = ~std::uint64_t{0};
    machine.sampling.paranoid = 2;
    machine.ptraceScope = 1;
    machine.kptrRestrict = 0;
    machine.kernelNames = true;
    machine.ringBytes = std::size_t{4} * 1024 * 1024;
    machine.enoughRingBytes = std::size_t{1024} * 1024;
    machine.descriptors = 524'288;
    machine.libraryIsDescribed = true;
    return machine;
}

/// What an ordinary user meets at these settings.
Machine machineOfUser(int paranoid, int scope) {
    Machine machine = generousMachine();
    machine.user = "user";
    machine.userId = 1000;
    machine.capabilities = 0;
    machine.sampling.paranoid = paranoid;
    machine.ptraceScope = scope;
    machine.samplingError = paranoid > 2 ? EACCES : 0;
    machine.samplingInKernelError = paranoid > 1 ? EACCES : 0;
    machine.kernelNames = paranoid <= 1;
    machine.tracingError = scope > 1 ? EPERM : 0;
    return machine;
}

Finding findingAbout(const Machine& machine, const std::string& subject) {
    for (const Finding& finding : checkMachine(machine)) {
        if (finding.subject == subject) {
            return finding;
        }
    }
    throw std::runtime_error("There is no finding about " + subject);
}

std::string curesOf(const Finding& finding) {
    std::string text;
    for (const auto& [what, where] : finding.cures) {
        text += what + "\n";
    }
    return text;
}

}  // namespace

TEST(MachineCheckTest, NothingIsMissingOnAGenerousMachine) {
    for (const Finding& finding : checkMachine(generousMachine())) {
        EXPECT_EQ(Grade::Good, finding.grade) << finding.subject;
        EXPECT_TRUE(finding.cures.empty()) << finding.subject;
    }
}

TEST(MachineCheckTest, EveryFindingThatIsNotGoodHasACure) {
    for (const int paranoid : {-1, 0, 1, 2, 3, 4}) {
        for (const int scope : {0, 1, 2, 3}) {
            Machine machine = machineOfUser(paranoid, scope);
            machine.ringBytes = 0;
            machine.descriptors = 10;
            machine.libraryIsDescribed = false;
            for (const Finding& finding : checkMachine(machine)) {
                EXPECT_EQ(finding.grade == Grade::Good, finding.cures.empty()) << finding.subject;
            }
        }
    }
}

TEST(MachineCheckTest, RingsAreAsLargeAsTheNumberOfProcessorsLetsThemBe) {
    Machine machine = generousMachine();
    machine.ringBytes = std::size_t{256} * 1024;
    EXPECT_EQ(Grade::Limited, findingAbout(machine, "Memory for samples").grade);

    machine.enoughRingBytes = machine.ringBytes;  // where there are 128 processors
    EXPECT_EQ(Grade::Good, findingAbout(machine, "Memory for samples").grade);
}

TEST(MachineCheckTest, OwnProcessesAreSampledUpToTheSecondLevel) {
    for (const int paranoid : {-1, 0, 1, 2}) {
        EXPECT_EQ(Grade::Good,
                  findingAbout(machineOfUser(paranoid, 1), "Processes of this user").grade);
    }
}

TEST(MachineCheckTest, OwnProcessesAreStoppedAboveIt) {
    const Finding finding = findingAbout(machineOfUser(3, 0), "Processes of this user");

    EXPECT_EQ(Grade::Limited, finding.grade);
    EXPECT_EQ(
        "looked at by stopping them, 100 times a second at most; perf_event_open: Permission "
        "denied (kernel.perf_event_paranoid is 3)",
        finding.text);
    EXPECT_EQ("sysctl kernel.perf_event_paranoid=2\nAmbientCapabilities=CAP_PERFMON\n",
              curesOf(finding));
}

TEST(MachineCheckTest, OnlyOwnCommandsAreLeftWhereTracingIsRestricted) {
    const Finding finding = findingAbout(machineOfUser(3, 1), "Processes of this user");

    EXPECT_EQ(Grade::Missing, finding.grade);
    EXPECT_EQ(
        "only commands that kolvan-trcap starts, by stopping them; perf_event_open: Permission "
        "denied (kernel.perf_event_paranoid is 3), others may not be traced "
        "(kernel.yama.ptrace_scope is 1)",
        finding.text);
    EXPECT_EQ(
        "sysctl kernel.perf_event_paranoid=2\nAmbientCapabilities=CAP_PERFMON\n"
        "sysctl kernel.yama.ptrace_scope=0\n",
        curesOf(finding));
}

TEST(MachineCheckTest, NothingIsLeftWhereBothAreRefused) {
    const Finding finding = findingAbout(machineOfUser(4, 3), "Processes of this user");

    EXPECT_EQ(Grade::Missing, finding.grade);
    EXPECT_EQ(
        "none; perf_event_open: Permission denied (kernel.perf_event_paranoid is 4), ptrace: "
        "Operation not permitted (kernel.yama.ptrace_scope is 3)",
        finding.text);
}

TEST(MachineCheckTest, NamesOfTheKernelNeedWhatIsMissingOnly) {
    Machine machine = machineOfUser(2, 0);
    EXPECT_EQ("sysctl kernel.perf_event_paranoid=1\nAmbientCapabilities=CAP_SYSLOG\n",
              curesOf(findingAbout(machine, "Names of the kernel's functions")));
    machine = machineOfUser(1, 0);
    machine.kptrRestrict = 2;
    machine.kernelNames = false;
    EXPECT_EQ("sysctl kernel.kptr_restrict=0\n",
              curesOf(findingAbout(machine, "Names of the kernel's functions")));
}

TEST(MachineCheckTest, ThreadsAreCountedByDescriptorsAndProcessors) {
    Machine machine = generousMachine();
    machine.descriptors = 1024;
    machine.processors = 8;

    const Finding finding = findingAbout(machine, "Open files");

    EXPECT_EQ(Grade::Limited, finding.grade);
    EXPECT_EQ("1024, enough for 120 threads that run already when their profile begins",
              finding.text);
}

TEST(MachineCheckTest, TheTextIsForPeople) {
    const Machine machine = machineOfUser(2, 0);

    EXPECT_EQ(R"(User user on host, Linux 6.1.0, 4 processors

  good     Processes of this user: sampled, 999 times in a second of processor time.
  limited  Processes of other users: none.
           Cure: sudo kolvan-trcap ...  (as root, or with -u as their user)
             or: AmbientCapabilities=CAP_PERFMON CAP_SYS_PTRACE  (in the unit of a service)
  limited  Time in the kernel, and where threads wait: not seen (kernel.perf_event_paranoid is 2).
           Cure: sysctl kernel.perf_event_paranoid=1  (as root; to keep it, in /etc/sysctl.d)
             or: AmbientCapabilities=CAP_PERFMON  (in the unit of a service)
  limited  Names of the kernel's functions: not shown to this user (kernel.kptr_restrict is 0).
           Cure: sysctl kernel.perf_event_paranoid=1  (as root; to keep it, in /etc/sysctl.d)
             or: AmbientCapabilities=CAP_SYSLOG  (in the unit of a service)
  good     Memory for samples: 4096 KiB for each processor.
  good     Open files: 524288, enough for 131056 threads that run already when their profile begins.
  good     Debug files of libraries: found, for instance of the C library.

This user can profile his own processes.
)",
              checkText(machine, checkMachine(machine), kWide));
}

TEST(MachineCheckTest, LinesFitTheirWidth) {
    Machine machine = machineOfUser(3, 1);
    machine.libraryIsDescribed = false;
    for (const std::size_t width : {80U, 200U}) {
        const std::string text = checkText(machine, checkMachine(machine), width);
        for (std::size_t begin = 0; begin < text.size();) {
            const std::size_t end = text.find('\n', begin);
            EXPECT_GE(std::min<std::size_t>(width, 100), end - begin)
                << text.substr(begin, end - begin);
            begin = end + 1;
        }
        EXPECT_TRUE(text.ends_with("\nThis user cannot profile his own processes.\n"));
    }
}

TEST(MachineCheckTest, ThisMachineIsRead) {
    const Machine machine = profiler::readMachine();

    EXPECT_NE("", machine.name);
    EXPECT_NE("", machine.kernel);
    EXPECT_EQ(::geteuid(), machine.userId);
    EXPECT_LT(0U, machine.descriptors);
    EXPECT_LT(0U, machine.ringBytes);
    EXPECT_LT(1U, machine.enoughRingBytes);
    EXPECT_EQ(0, machine.tracingError);
}

TEST(MachineCheckTest, TheProgramSaysYesAndNo) {
    const auto runCheck = [] {
        Program program({"--check"});
        const int code = program.finish();
        const std::string& text = program.output();
        return std::to_string(code) + text.substr(text.rfind('\n', text.size() - 2));
    };
    EXPECT_EQ("0\nThis user can profile his own processes.\n", runCheck());
    EXPECT_EQ("1\nThis user cannot profile his own processes.\n", resultOfChild([&] {
                  refuseSystemCall(SYS_perf_event_open);
                  refuseSystemCall(SYS_ptrace);
                  return runCheck();
              }));
}

TEST(MachineCheckTest, AnOrdinaryUserIsToldWhatHeMay) {
    const std::string result = resultOfChild([] {
        becomeOrdinaryUser();
        const Machine machine = profiler::readMachine();
        return std::string(machine.samplingError == 0 ? "own, " : "none, ") +
               (findingAbout(machine, "Processes of other users").grade == Grade::Limited
                    ? "not of others"
                    : "of others");
    });

    EXPECT_EQ("own, not of others", result);
}

}  // namespace kolvan::test
