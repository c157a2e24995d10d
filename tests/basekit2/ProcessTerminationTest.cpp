#include "basekit2/process/IProcess.h"
#include "tests/basekit2/ProcessSupport.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/ThreadShortage.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <future>
#include <latch>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <linux/sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::test {

using basekit2::ref_ptr_t;
using basekit2::result_t;
using basekit2::process::IProcess;

namespace {

const std::string kTerm = std::to_string(SIGTERM);

class ProcessTerminationTest : public AuditedProcessTest {
protected:
    /// Starts a child that first reports its process number and then goes on with `actions`.
    static pid_t startReporting(ChildRun& run, std::vector<std::string> actions) {
        // What has to be in force before the child can be signalled comes before the report.
        std::vector<std::string> all;
        while (actions.size() >= 2 && (actions[0] == "ignore" || actions[0] == "block")) {
            all.insert(all.end(), actions.begin(), actions.begin() + 2);
            actions.erase(actions.begin(), actions.begin() + 2);
        }
        all.insert(all.end(), {"report", "1", "pid"});
        all.insert(all.end(), actions.begin(), actions.end());
        EXPECT_EQ(result_t::no_error(), run.start(all));
        EXPECT_TRUE(run.out->waitFor("\n"));
        return std::stoi(run.out->text());
    }

    TemporaryDirectory directory;
};

/// A process with a chosen number that ends with code 9 as soon as it is let go.
class Bystander {
public:
    explicit Bystander(pid_t number) {
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            return;
        }
        clone_args arguments{};
        arguments.exit_signal = SIGCHLD;
        arguments.set_tid = reinterpret_cast<std::uintptr_t>(&number);
        arguments.set_tid_size = 1;
        process = ::syscall(SYS_clone3, &arguments, sizeof(arguments));
        error = errno;
        if (process == 0) {
            char byte;
            (void)::syscall(SYS_close, ends[1]);
            (void)::syscall(SYS_read, ends[0], &byte, 1);
            ::_exit(9);
        }
    }

    Bystander(const Bystander&) = delete;
    Bystander& operator=(const Bystander&) = delete;

    ~Bystander() {
        (void)::close(ends[0]);
        (void)::close(ends[1]);
    }

    bool exists() const { return process > 0; }
    int reason() const { return error; }

    /// Lets it end. @return its status as `waitpid` gives it
    int status() {
        (void)::close(std::exchange(ends[1], -1));
        int result = -1;
        (void)::waitpid(static_cast<pid_t>(process), &result, 0);
        return result;
    }

private:
    int ends[2] = {-1, -1};
    long process = -1;
    int error = 0;
};

}  // namespace

TEST_F(ProcessTerminationTest, AsksTheChildWithSigterm) {
    ChildRun run;
    startReporting(run, {"block", kTerm, "await-signal", kTerm, "text", "1", "asked", "exit", "7"});

    EXPECT_EQ(result_t::no_error(), run.process->terminate());

    EXPECT_EQ(7, run.wait());
    EXPECT_TRUE(run.out->text().ends_with("asked"));
}

TEST_F(ProcessTerminationTest, ChildThatDoesNotHandleItDiesOfIt) {
    ChildRun run;
    startReporting(run, {"stay"});

    EXPECT_EQ(result_t::no_error(), run.process->terminate());

    EXPECT_EQ(128 + SIGTERM, run.wait());
}

// One case for all kinds, because each of them takes the whole grace time.
TEST_F(ProcessTerminationTest, ChildThatDoesNotObeyIsKilledWhetherSomebodyWaitsOrNot) {
    ChildRun ignoring;
    ChildRun blocking;
    ChildRun stopped;
    ChildRun waitedFor;
    const pid_t ignoringChild = startReporting(ignoring, {"ignore", kTerm, "stay"});
    const pid_t blockingChild = startReporting(blocking, {"block", kTerm, "stay"});
    const pid_t stoppedChild = startReporting(stopped, {"stop", "exit", "0"});
    startReporting(waitedFor, {"ignore", kTerm, "stay"});
    siginfo_t info{};
    ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(stoppedChild), &info, WSTOPPED | WNOWAIT));
    auto code = std::async(std::launch::async, [&] { return waitedFor.wait(); });

    for (ChildRun* const run : {&ignoring, &blocking, &stopped, &waitedFor}) {
        EXPECT_EQ(result_t::no_error(), run->process->terminate());
    }

    EXPECT_EQ(128 + SIGKILL, code.get());
    for (const pid_t child : {ignoringChild, blockingChild, stoppedChild}) {
        EXPECT_TRUE(eventually([&] { return !isRunning(child); }));
    }
    EXPECT_EQ(128 + SIGKILL, ignoring.wait());
    EXPECT_EQ(128 + SIGKILL, blocking.wait());
    EXPECT_EQ(128 + SIGKILL, stopped.wait());
}

TEST_F(ProcessTerminationTest, StoppedAndContinuedChildIsWaitedForToItsEnd) {
    ChildRun run;
    const pid_t child = startReporting(run, {"stop", "text", "1", "continued", "exit", "5"});
    auto code = std::async(std::launch::async, [&] { return run.wait(); });
    siginfo_t info{};
    ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(child), &info, WSTOPPED | WNOWAIT));

    ASSERT_EQ(0, ::kill(child, SIGCONT));

    EXPECT_EQ(5, code.get());
    EXPECT_TRUE(run.out->text().ends_with("continued"));
}

TEST_F(ProcessTerminationTest, CallerIsNotHeldUpByAChildThatIgnoresIt) {
    Fifo fifo(directory.entry("fifo"));
    ChildRun run;
    startReporting(run, {"ignore", kTerm, "await", fifo.path(), "exit", "5"});

    EXPECT_EQ(result_t::no_error(), run.process->terminate());
    fifo.release();

    // It is not killed: the call came back while there was time left to end in its own way.
    EXPECT_EQ(5, run.wait());
}

TEST_F(ProcessTerminationTest, ChildIsKilledAtOnceWhenNoThreadCanWaitForTheGraceTime) {
    ChildRun run;
    startReporting(run, {"ignore", kTerm, "stay"});
    {
        ThreadShortage shortage;
        shortage.begin();

        EXPECT_EQ(result_t::no_error(), run.process->terminate());
    }

    EXPECT_EQ(128 + SIGKILL, run.wait());
}

TEST_F(ProcessTerminationTest, CanBeCalledWhileAnotherThreadWaits) {
    ChildRun run;
    startReporting(run, {"stay"});
    auto code = std::async(std::launch::async, [&] { return run.wait(); });

    EXPECT_EQ(result_t::no_error(), run.process->terminate());

    EXPECT_EQ(128 + SIGTERM, code.get());
}

TEST_F(ProcessTerminationTest, ManyCallsAtOnceAllSucceed) {
    constexpr int kThreads = 8;
    ChildRun run;
    const pid_t child = startReporting(run, {"ignore", kTerm, "stay"});
    std::latch together(kThreads);
    std::vector<std::future<result_t>> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.push_back(std::async(std::launch::async, [&] {
            together.arrive_and_wait();
            return run.process->terminate();
        }));
    }

    for (auto& thread : threads) {
        EXPECT_EQ(result_t::no_error(), thread.get());
    }
    ASSERT_EQ(0, ::kill(child, SIGKILL));
    EXPECT_EQ(128 + SIGKILL, run.wait());
}

TEST_F(ProcessTerminationTest, ProcessThatWasNeverStartedCannotBeAsked) {
    EXPECT_EQ(result_t::from_errno(ESRCH), IProcess::create()->terminate());

    ChildRun prepared;
    EXPECT_EQ(result_t::from_errno(ESRCH), prepared.process->terminate());
}

TEST_F(ProcessTerminationTest, ChildThatHasEndedKeepsItsExitCode) {
    ChildRun run;
    const pid_t child = startReporting(run, {"exit", "6"});
    ASSERT_TRUE(eventually([&] { return !isRunning(child); }));

    EXPECT_EQ(result_t::no_error(), run.process->terminate());
    EXPECT_EQ(6, run.wait());
    EXPECT_EQ(result_t::no_error(), run.process->terminate());
    EXPECT_EQ(6, run.wait());
}

TEST_F(ProcessTerminationTest, NumberOfAChildThatWasWaitedForIsNeverSignalled) {
    ChildRun run;
    const pid_t child = startReporting(run, {"exit", "6"});
    ASSERT_EQ(6, run.wait());
    Bystander bystander(child);
    if (!bystander.exists()) {
        GTEST_SKIP() << "no process can be started with a chosen number here: errno "
                     << bystander.reason();
    }

    EXPECT_EQ(result_t::no_error(), run.process->terminate());
    run.process = ref_ptr_t<IProcess>();

    const int status = bystander.status();
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(9, WEXITSTATUS(status));
}

TEST_F(ProcessTerminationTest, NoSigkillFollowsAChildThatHasObeyed) {
    ChildRun run;
    const pid_t child = startReporting(run, {"stay"});
    ASSERT_EQ(result_t::no_error(), run.process->terminate());
    ASSERT_EQ(128 + SIGTERM, run.wait());
    Bystander bystander(child);
    if (!bystander.exists()) {
        GTEST_SKIP() << "no process can be started with a chosen number here: errno "
                     << bystander.reason();
    }

    // What could still send the signal ends with the object at the latest.
    run.process = ref_ptr_t<IProcess>();

    const int status = bystander.status();
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(9, WEXITSTATUS(status));
}

TEST_F(ProcessTerminationTest, ObjectIsDestroyedWhileItsChildIgnoresTheRequest) {
    auto run = std::make_unique<ChildRun>();
    const pid_t child = startReporting(*run, {"ignore", kTerm, "stay"});
    ASSERT_EQ(result_t::no_error(), run->process->terminate());

    withinDeadline([&] { run.reset(); });

    (void)::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(SIGKILL, WTERMSIG(status));
}

TEST_F(ProcessTerminationTest, GrandchildIsNotSignalled) {
    Fifo leash(directory.entry("leash"));
    ChildRun run;
    startReporting(run, {"grandchild", leash.path(), "hold", "text", "2", "forked", "stay"});
    ASSERT_TRUE(run.err->waitFor("forked"));

    EXPECT_EQ(result_t::no_error(), run.process->terminate());

    EXPECT_EQ(128 + SIGTERM, run.wait());
    siginfo_t info{};
    EXPECT_EQ(0, ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT));
    EXPECT_EQ(0, info.si_pid);
    leash.release();
    EXPECT_LT(0, reapGrandchild());
}

TEST_F(ProcessTerminationTest, RaceWithTheChildsOwnEndGivesOneOfTheTwoCodes) {
    for (int round = 0; round < 200; ++round) {
        ChildRun run;
        ASSERT_EQ(result_t::no_error(), run.start({"exit", "6"}));
        auto waiting = std::async(std::launch::async, [&] { return run.process->wait(); });
        auto asking = std::async(std::launch::async, [&] { return run.process->terminate(); });

        ASSERT_EQ(result_t::no_error(), asking.get());
        const int code = withinDeadline([&] { return waiting.get(); });

        ASSERT_TRUE(code == 6 || code == 128 + SIGTERM) << code;
    }
}

}  // namespace kolvan::test
