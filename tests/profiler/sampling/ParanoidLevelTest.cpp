// What becomes of a profile at each level of kernel.perf_event_paranoid. The level itself is the
// machine's, which is left as it is: the file that tells it shows another one to the process that
// profiles, and its rights are such that the kernel answers as it does at that level. Up to level
// 1 an ordinary user has what CAP_PERFMON gives him at the others; above level 2, as some
// distributions have it, his calls are refused.

#include "companions/profiler/machine/Access.h"
#include "companions/profiler/machine/MachineCheck.h"
#include "companions/profiler/sampling/ProfileSession.h"
#include "tests/profiler/engine/FixtureProcess.h"
#include "tests/profiler/support/ChildOfTest.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <functional>
#include <string>

#include <linux/capability.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kolvan::test {

namespace {

using profiler::EngineChoice;
using profiler::Machine;
using profiler::Profile;
using profiler::ProfileSession;

constexpr const char* kLevelFile = "/proc/sys/kernel/perf_event_paranoid";

bool hasTimeInKernel(const Profile& profile) {
    return std::any_of(profile.locations.begin(), profile.locations.end(),
                       [&](const Profile::Location& location) {
                           return profile.modules[location.module].path == "[kernel]";
                       });
}

/// Profiles a program that is in the kernel for some hundredths of its time, until that is seen or
/// must have been.
/// @return the engine, what it sees, and each limit in a line: on a busy machine there may be more
///         of them at the end
std::string profileBusyProgram(std::size_t samples) {
    FixtureProcess fixture({"burn", "60000", "1"});
    fixture.say("go");
    ProfileSession session(EngineChoice::Automatic, {}, fixture.id(), 0, false);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (session.coverage().samples < samples && !hasTimeInKernel(session.profile()) &&
           std::chrono::steady_clock::now() < deadline) {
        constexpr int kMilliseconds = 1;  // nobody here receives the signal that tells of stops
        pollfd entry{session.descriptor(), POLLIN, 0};
        (void)::poll(&entry, 1, kMilliseconds);
        session.deliver();
    }
    session.finish();
    std::string text = session.profile().engine;
    text += hasTimeInKernel(session.profile()) ? ", with the kernel\n" : ", without the kernel\n";
    for (const std::string& limit : session.coverage().limits) {
        // Where a virtual machine does not get its processors, no sample falls into that time.
        text += limit.starts_with("Some processor time has no samples") ? "" : limit + "\n";
    }
    return text;
}

/// What the list of processes says of one of one's own.
std::string accessToOwnProcess() {
    const profiler::Access access =
        profiler::judge(profiler::tryProcess(::getpid()), profiler::readSettings());
    return access.reason + "; " + access.help + "\n";
}

/// What the check of this machine says of sampling.
std::string findings() {
    Machine machine = profiler::readMachine();
    machine.ptraceScope = 0;
    std::string text;
    for (const profiler::Finding& finding : profiler::checkMachine(machine)) {
        if (finding.subject == "Processes of this user" ||
            finding.subject == "Time in the kernel, and where threads wait") {
            text += finding.text + "\n";
        }
    }
    return text;
}

/// Does `work` where the level seems to be `level`.
std::string atLevel(int level, const std::function<std::string()>& work) {
    const TemporaryDirectory directory;
    const std::string shown = directory.entry("level");
    std::ofstream(shown) << level << "\n";
    return resultOfChild([&] {
        if (!makeMountsPrivate() ||
            ::mount(shown.c_str(), kLevelFile, nullptr, MS_BIND, nullptr) != 0) {
            return std::string("no mounts of its own");
        }
        return work();
    });
}

/// The level at which the kernel of this machine works.
int levelOfKernel() {
    int level = 0;
    std::ifstream(kLevelFile) >> level;
    return level;
}

/// Gives up root's rights, such that the kernel answers as at that level.
void becomeUserAtLevel(int level) {
    const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};  // what the user's other processes lock
    (void)::setrlimit(RLIMIT_MEMLOCK, &unlimited);         // is not to make a difference
    if (level <= 1) {
        becomeUserWith(CAP_PERFMON);
    } else {
        becomeOrdinaryUser();
    }
    if (level > 2) {
        refuseSystemCall(SYS_perf_event_open);
    }
}

class ParanoidLevelTest : public testing::TestWithParam<int> {
protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "Takes root, who shows a level and gives up rights.";
        }
        if (!isReachableForOthers(KOLVAN_ENGINE_FIXTURE)) {
            GTEST_SKIP() << "An ordinary user cannot come to the programs of this build.";
        }
    }
};

std::string nameOfLevel(const testing::TestParamInfo<int>& info) {
    return info.param < 0 ? "Minus1" : std::to_string(info.param);
}

INSTANTIATE_TEST_SUITE_P(, ParanoidLevelTest, testing::Values(-1, 0, 1, 2, 3, 4), nameOfLevel);

constexpr std::size_t kManySamples = 500;  // the kernel is in a twentieth of them
constexpr std::size_t kSomeStops = 10;

const std::string kAllIsSeen = "sampled, 999 times in a second of processor time\nseen\n";

TEST_P(ParanoidLevelTest, RootSeesEverything) {
    const std::string result = atLevel(GetParam(), [] {
        return profileBusyProgram(kManySamples) + accessToOwnProcess() + findings();
    });

    EXPECT_EQ("perf, with the kernel\n; \n" + kAllIsSeen, result);
}

TEST_P(ParanoidLevelTest, AnOrdinaryUserSeesWhatTheLevelAllows) {
    const int level = GetParam();
    if (level == 2 && levelOfKernel() != 2) {
        GTEST_SKIP() << "The kernel alone can answer as at level 2, where it is at that level.";
    }
    const std::string result = atLevel(level, [level] {
        becomeUserAtLevel(level);
        return profileBusyProgram(level > 2 ? kSomeStops : kManySamples) + accessToOwnProcess() +
               findings();
    });

    const std::string remark = " (kernel.perf_event_paranoid is " + std::to_string(level) + ")";
    if (level <= 1) {
        EXPECT_EQ("perf, with the kernel\n; \n" + kAllIsSeen, result);
    } else if (level == 2) {
        EXPECT_EQ(
            "perf, without the kernel\n"
            "Time in the kernel is not sampled: this user may not (kernel.perf_event_paranoid at "
            "most 1, or CAP_PERFMON, helps).\n"
            "neither time in the kernel is seen nor where threads wait" +
                remark +
                "; kernel.perf_event_paranoid at most 1, or CAP_PERFMON\n"
                "sampled, 999 times in a second of processor time\n"
                "not seen" +
                remark + "\n",
            result);
    } else {
        const std::string begin =
            "ptrace, without the kernel\n"
            "The better engine is not to be had: the system does not let this user sample, "
            "perf_event_open: Permission denied" +
            remark +
            "; what helps is kernel.perf_event_paranoid at most 2, or CAP_PERFMON.\n"
            "Threads are stopped for each look (ptrace), 100 times a second at most; time in the "
            "kernel is not told apart, and a call that waits may be interrupted (EINTR).\n";
        const std::string end =
            "by stops only, 100 times a second at most; perf_event_open: Permission denied" +
            remark +
            "; kernel.perf_event_paranoid at most 2, or CAP_PERFMON\n"
            "looked at by stopping them, 100 times a second at most; perf_event_open: Permission "
            "denied" +
            remark + "\n";
        EXPECT_TRUE(result.starts_with(begin)) << result;
        EXPECT_TRUE(result.ends_with(end)) << result;
    }
}

struct Refusal {
    const char* name;
    int error;
    const char* text;
};

void PrintTo(const Refusal& refusal, std::ostream* stream) {
    *stream << refusal.name;
}

class RefusalTest : public testing::TestWithParam<Refusal> {};

std::string nameOfRefusal(const testing::TestParamInfo<Refusal>& info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(
    , RefusalTest,
    testing::Values(
        Refusal{"Forbidden", EACCES,
                "the system does not let this user sample, perf_event_open: Permission denied; "
                "what helps is a filter of system calls, of a container for instance, that lets "
                "perf_event_open pass"},
        Refusal{"NotPermitted", EPERM,
                "the system does not let this user sample, perf_event_open: Operation not "
                "permitted; what helps is a filter of system calls, of a container for instance, "
                "that lets perf_event_open pass"},
        Refusal{"Unknown", ENOSYS,
                "perf_event_open: Function not implemented; what helps is a kernel with "
                "CONFIG_PERF_EVENTS, or a filter of system calls that lets perf_event_open pass"},
        Refusal{"Busy", EBUSY,
                "perf_event_open: Device or resource busy; what helps is another attempt later"},
        Refusal{"TooManyFiles", EMFILE,
                "perf_event_open: Too many open files; what helps is a higher limit of open files "
                "(ulimit -n)"}),
    nameOfRefusal);

TEST_P(RefusalTest, StopsStepInAndTheCureIsThatOfTheError) {
    const std::string result = resultOfChild([] {
        refuseSystemCall(SYS_perf_event_open, GetParam().error);
        return profileBusyProgram(kSomeStops);
    });

    // Root's level is no matter.
    const std::string begin =
        std::string("ptrace, without the kernel\nThe better engine is not to be had: ") +
        GetParam().text + ".\nThreads are stopped";
    EXPECT_TRUE(result.starts_with(begin)) << result;
}

}  // namespace
}  // namespace kolvan::test
