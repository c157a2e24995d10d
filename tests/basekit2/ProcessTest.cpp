#include "basekit2/process/IProcess.h"
#include "tests/basekit2/ProcessSupport.h"
#include "tests/support/CapturedStream.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <string>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolvan::test {

namespace fs = std::filesystem;

using basekit2::make_ref_counted;
using basekit2::ref_ptr_t;
using basekit2::result_t;
using basekit2::process::environment_t;
using basekit2::process::IProcess;

namespace {

const std::string kNoSignals =
    "SigBlk:\t0000000000000000\n"
    "SigIgn:\t0000000000000000\n"
    "SigCgt:\t0000000000000000\n";

int exitCodeOf(const std::vector<std::string>& actions) {
    ChildRun run;
    EXPECT_EQ(result_t::no_error(), run.start(actions));
    return run.wait();
}

std::string ourEnvironment() {
    std::string text;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        text += *entry + std::string("\n");
    }
    return text;
}

/// What the child reports of its environment.
std::string environmentOf(const ref_ptr_t<environment_t>& environment) {
    ChildRun run;
    const std::vector<std::string> actions{"report", "1", "environment"};
    EXPECT_EQ(result_t::no_error(), run.process->start(KOLVAN_TEST_CHILD, argumentsOf(actions),
                                                       environment, "", 0, 0, 0));
    EXPECT_EQ(0, run.wait());
    return run.out->text();
}

/// Signal mask and dispositions of this thread and process, as they were before.
class SignalState {
public:
    SignalState() { (void)::pthread_sigmask(SIG_SETMASK, nullptr, &mask); }
    ~SignalState() {
        for (const auto& [signal, action] : actions) {
            (void)::sigaction(signal, &action, nullptr);
        }
        (void)::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    }

    SignalState(const SignalState&) = delete;
    SignalState& operator=(const SignalState&) = delete;

    void blockAll() {
        sigset_t all;
        sigfillset(&all);
        (void)::pthread_sigmask(SIG_SETMASK, &all, nullptr);
    }

    void handle(int signal, void (*handler)(int)) {
        struct sigaction action {};
        action.sa_handler = handler;
        struct sigaction former {};
        (void)::sigaction(signal, &action, &former);
        actions.emplace_back(signal, former);
    }

private:
    sigset_t mask{};
    std::vector<std::pair<int, struct sigaction>> actions;
};

class ProcessTest : public AuditedProcessTest {
protected:
    /// Starts something that cannot be started and tells why.
    result_t failureOf(const std::string& executable, const std::vector<std::string>& arguments,
                       const std::string& workingDirectory = "") {
        ChildRun run;
        const result_t result = startProgram(*run.process, executable, arguments, workingDirectory);
        EXPECT_EQ(IProcess::kNotStarted, run.wait());
        EXPECT_EQ(result_t::from_errno(ESRCH), run.process->terminate());
        EXPECT_EQ("", run.out->text() + run.err->text() + run.feedback->text());
        return result;
    }

    TemporaryDirectory directory;
};

}  // namespace

TEST_F(ProcessTest, ExitCodeIsTheChildsOwn) {
    for (const int code : {0, 1, 2, 3, 42, 127, 128, 143, 255}) {
        EXPECT_EQ(code, exitCodeOf({"exit", std::to_string(code)}));
    }
}

TEST_F(ProcessTest, DeathByASignalIsItsNumberAbove128) {
    for (const int signal :
         {SIGHUP,  SIGINT,    SIGQUIT, SIGILL,  SIGTRAP, SIGABRT,  SIGBUS,    SIGFPE,  SIGKILL,
          SIGUSR1, SIGSEGV,   SIGUSR2, SIGPIPE, SIGALRM, SIGTERM,  SIGSTKFLT, SIGXCPU, SIGXFSZ,
          SIGPROF, SIGVTALRM, SIGIO,   SIGPWR,  SIGSYS,  SIGRTMIN, SIGRTMAX}) {
        EXPECT_EQ(128 + signal, exitCodeOf({"die", std::to_string(signal)}));
    }
}

TEST_F(ProcessTest, ChildThatWasNeverStartedHasTheCodeMinusOne) {
    EXPECT_EQ(-1, IProcess::create()->wait());

    ChildRun prepared;
    EXPECT_EQ(-1, prepared.wait());
}

TEST_F(ProcessTest, WaitingAgainGivesTheSameCode) {
    ChildRun run;
    ASSERT_EQ(result_t::no_error(), run.start({"exit", "9"}));

    EXPECT_EQ(9, run.wait());
    EXPECT_EQ(9, run.wait());
}

TEST_F(ProcessTest, TwoWaitersGetTheSameCode) {
    Fifo fifo(directory.entry("fifo"));
    ChildRun run;
    ASSERT_EQ(result_t::no_error(), run.start({"await", fifo.path(), "exit", "9"}));
    auto first = std::async(std::launch::async, [&] { return run.process->wait(); });
    auto second = std::async(std::launch::async, [&] { return run.process->wait(); });

    fifo.release();

    EXPECT_EQ(9, withinDeadline([&] { return first.get(); }));
    EXPECT_EQ(9, withinDeadline([&] { return second.get(); }));
}

TEST_F(ProcessTest, EndOfAChildThatNobodyWaitsForYetIsNotLost) {
    ChildRun run;
    ASSERT_EQ(result_t::no_error(), run.start({"report", "1", "pid", "exit", "6"}));
    ASSERT_TRUE(run.out->waitFor("\n"));
    const pid_t child = std::stoi(run.out->text());
    ASSERT_TRUE(eventually([&] { return !isRunning(child); }));

    EXPECT_EQ(6, run.wait());
}

TEST_F(ProcessTest, WaitingForOneChildLeavesTheOthersEndToItsOwnWaiter) {
    ChildRun first;
    ChildRun second;
    ASSERT_EQ(result_t::no_error(), first.start({"exit", "1"}));
    ASSERT_EQ(result_t::no_error(), second.start({"exit", "2"}));

    EXPECT_EQ(2, second.wait());
    EXPECT_EQ(1, first.wait());
}

TEST_F(ProcessTest, ArgumentsArriveUnchangedAndInOrder) {
    const std::vector<std::string> arguments{"report", "1",        "arguments", "--",
                                             "",       "a b",      "\"quo'te",  "$HOME `x`",
                                             "a\\",    "\xFF\xFE", "--",        "*"};
    std::string expected;
    for (const std::string& argument : arguments) {
        expected += argument + '\n';
    }

    EXPECT_EQ(expected, outputOf(arguments));
}

TEST_F(ProcessTest, ArgumentZeroIsTheExecutable) {
    EXPECT_EQ(KOLVAN_TEST_CHILD "\n", outputOf({"report", "1", "program"}));
}

TEST_F(ProcessTest, ProgramRunsWithoutArguments) {
    EXPECT_EQ("", outputOf({}));
}

TEST_F(ProcessTest, WorkingDirectoryIsTheOneAskedFor) {
    ChildRun run;
    ASSERT_EQ(result_t::no_error(),
              run.start({"report", "1", "directory"}, directory.path().string()));

    EXPECT_EQ(0, run.wait());
    EXPECT_EQ(fs::canonical(directory.path()).string() + "\n", run.out->text());
}

TEST_F(ProcessTest, WithoutAWorkingDirectoryItIsOurs) {
    EXPECT_EQ(fs::current_path().string() + "\n", outputOf({"report", "1", "directory"}));
}

TEST_F(ProcessTest, EnvironmentIsACopyOfOursWhenNoneIsGiven) {
    ASSERT_EQ(0, ::setenv("KOLVAN_TEST_VALUE", "a value = with\tblanks", 1));

    const std::string reported = environmentOf({});
    const std::string expected = ourEnvironment();
    ::unsetenv("KOLVAN_TEST_VALUE");

    EXPECT_EQ(expected, reported);
    EXPECT_NE(std::string::npos, reported.find("KOLVAN_TEST_VALUE=a value = with\tblanks\n"));
}

TEST_F(ProcessTest, EnvironmentThatIsGivenIsTheWholeOne) {
    EXPECT_EQ(
        "ONE=1\nTWO=\n",
        environmentOf(make_ref_counted<environment_t>(std::vector<std::string>{"ONE=1", "TWO="})));
    EXPECT_EQ("", environmentOf(make_ref_counted<environment_t>(std::vector<std::string>{})));
}

TEST_F(ProcessTest, ChildBelongsToOurProcessGroupAndSession) {
    EXPECT_EQ(std::to_string(::getpgrp()) + "\n" + std::to_string(::getsid(0)) + "\n",
              outputOf({"report", "1", "group"}));
}

TEST_F(ProcessTest, SignalsThatWeBlockAreNotBlockedInTheChild) {
    SignalState state;
    state.blockAll();

    EXPECT_EQ(kNoSignals, outputOf({"report", "1", "signals"}));
}

TEST_F(ProcessTest, SignalsThatWeIgnoreOrHandleHaveTheirDefaultInTheChild) {
    SignalState state;
    for (const int signal : {SIGPIPE, SIGHUP, SIGQUIT, SIGUSR2, SIGTSTP, SIGRTMIN + 3, SIGRTMAX}) {
        state.handle(signal, SIG_IGN);
    }
    state.handle(SIGINT, [](int) {});
    state.handle(SIGTERM, [](int) {});

    EXPECT_EQ(kNoSignals, outputOf({"report", "1", "signals"}));
}

// The C library keeps two signals for its threads and refuses to speak of them; the kernel does
// not, and hands on that they are ignored.
TEST_F(ProcessTest, SignalsThatTheLibraryHidesHaveTheirDefaultInTheChildToo) {
    using KernelAction = std::array<std::uint64_t, 4>;  // handler, flags, restorer, mask
    const KernelAction ignored{1};
    KernelAction formerOf32{};
    KernelAction formerOf33{};
    const auto change = [](int signal, const KernelAction& action, KernelAction* former) {
        return ::syscall(SYS_rt_sigaction, signal, action.data(), former, sizeof(std::uint64_t));
    };
    ASSERT_EQ(0, change(32, ignored, &formerOf32));
    ASSERT_EQ(0, change(33, ignored, &formerOf33));

    const std::string reported = outputOf({"report", "1", "signals"});
    ASSERT_EQ(0, change(32, formerOf32, nullptr));
    ASSERT_EQ(0, change(33, formerOf33, nullptr));

    EXPECT_EQ(kNoSignals, reported);
}

TEST_F(ProcessTest, StartingLeavesOurOwnSignalsAsTheyWere) {
    SignalState state;
    state.blockAll();
    state.handle(SIGPIPE, SIG_IGN);
    sigset_t before;
    ASSERT_EQ(0, ::pthread_sigmask(SIG_SETMASK, nullptr, &before));

    EXPECT_EQ(0, exitCodeOf({}));

    sigset_t after;
    struct sigaction pipeAction {};
    ASSERT_EQ(0, ::pthread_sigmask(SIG_SETMASK, nullptr, &after));
    ASSERT_EQ(0, ::sigaction(SIGPIPE, nullptr, &pipeAction));
    for (int signal = 1; signal < NSIG; ++signal) {
        EXPECT_EQ(sigismember(&before, signal), sigismember(&after, signal)) << signal;
    }
    EXPECT_EQ(SIG_IGN, pipeAction.sa_handler);
}

TEST_F(ProcessTest, StartingBlocksNoneOfOurSignals) {
    sigset_t before;
    ASSERT_EQ(0, ::pthread_sigmask(SIG_SETMASK, nullptr, &before));

    EXPECT_EQ(0, exitCodeOf({}));

    sigset_t after;
    ASSERT_EQ(0, ::pthread_sigmask(SIG_SETMASK, nullptr, &after));
    for (int signal = 1; signal < NSIG; ++signal) {
        EXPECT_EQ(sigismember(&before, signal), sigismember(&after, signal)) << signal;
    }
}

TEST_F(ProcessTest, MissingProgramIsTheResultOfTheStart) {
    EXPECT_EQ(result_t::from_errno(ENOENT), failureOf(directory.entry("missing"), {}));
    EXPECT_EQ(result_t::from_errno(ENOENT), failureOf("", {}));
}

TEST_F(ProcessTest, ProgramThatMayNotBeExecutedIsTheResultOfTheStart) {
    const std::string file = directory.write("file", "#!/bin/sh\nexit 0\n");
    ASSERT_EQ(0, ::chmod(file.c_str(), 0644));

    EXPECT_EQ(result_t::from_errno(EACCES), failureOf(file, {}));
}

TEST_F(ProcessTest, DirectoryIsNoProgram) {
    EXPECT_EQ(result_t::from_errno(EACCES), failureOf(directory.path().string(), {}));
}

TEST_F(ProcessTest, FileOfAnotherFormatIsNoProgram) {
    const std::string text = directory.write("text", "echo this is not run by any shell\n");
    const std::string empty = directory.write("empty", "");
    const std::string cut = directory.write("cut", readFile(KOLVAN_TEST_CHILD).substr(0, 40));
    for (const std::string& file : {text, empty, cut}) {
        ASSERT_EQ(0, ::chmod(file.c_str(), 0755));

        EXPECT_EQ(result_t::from_errno(ENOEXEC), failureOf(file, {})) << file;
    }
}

TEST_F(ProcessTest, MissingInterpreterIsTheResultOfTheStart) {
    const std::string script = directory.write("script", "#!/no/such/interpreter\n");
    ASSERT_EQ(0, ::chmod(script.c_str(), 0755));

    EXPECT_EQ(result_t::from_errno(ENOENT), failureOf(script, {}));
}

TEST_F(ProcessTest, ProgramThatIsBeingWrittenIsTheResultOfTheStart) {
    const std::string file = directory.write("program", readFile(KOLVAN_TEST_CHILD));
    ASSERT_EQ(0, ::chmod(file.c_str(), 0755));
    const basekit2::UniqueFd writer(::open(file.c_str(), O_WRONLY | O_CLOEXEC));

    EXPECT_EQ(result_t::from_errno(ETXTBSY), failureOf(file, {}));
}

TEST_F(ProcessTest, WorkingDirectoryThatCannotBeEnteredIsTheResultOfTheStart) {
    EXPECT_EQ(result_t::from_errno(ENOENT),
              failureOf(KOLVAN_TEST_CHILD, {}, directory.entry("missing")));
    EXPECT_EQ(result_t::from_errno(ENOTDIR),
              failureOf(KOLVAN_TEST_CHILD, {}, directory.write("file", "")));
}

TEST_F(ProcessTest, ArgumentThatIsTooLongIsTheResultOfTheStart) {
    EXPECT_EQ(result_t::from_errno(E2BIG),
              failureOf(KOLVAN_TEST_CHILD, {"text", "1", std::string(1000000, 'x')}));
}

TEST_F(ProcessTest, StartsOnce) {
    ChildRun run;
    ASSERT_EQ(result_t::no_error(), run.start({"text", "1", "first", "exit", "4"}));

    EXPECT_EQ(result_t::from_errno(EALREADY), run.start({"text", "1", "second"}));

    EXPECT_EQ(4, run.wait());
    EXPECT_EQ(result_t::from_errno(EALREADY), run.start({"text", "1", "third"}));
    EXPECT_EQ("first", run.out->text());
}

TEST_F(ProcessTest, ReservedValuesMustBeZero) {
    const std::vector<std::string> actions{"text", "1", "started"};
    ChildRun first;
    ChildRun second;

    EXPECT_EQ(result_t::from_errno(EINVAL),
              first.process->start(KOLVAN_TEST_CHILD, argumentsOf(actions), {}, "", 1, 0, 1));
    EXPECT_EQ(result_t::from_errno(EINVAL),
              second.process->start(KOLVAN_TEST_CHILD, argumentsOf(actions), {}, "", 0, 1, 1));

    EXPECT_EQ(-1, first.wait());
    EXPECT_EQ(-1, second.wait());
}

TEST_F(ProcessTest, NameWithoutASlashIsFoundAlongThePathWhenAskedFor) {
    const fs::path child = KOLVAN_TEST_CHILD;
    const PathVariable path("/no/such/directory:" + child.parent_path().string());
    const std::vector<std::string> actions{"exit", "5"};
    ChildRun searching;
    ChildRun exact;

    const result_t found =
        searching.process->start(child.filename(), argumentsOf(actions), {}, "", 0, 0, 1);
    const result_t notFound =
        exact.process->start(child.filename(), argumentsOf(actions), {}, "", 0, 0, 0);

    EXPECT_EQ(result_t::no_error(), found);
    EXPECT_EQ(result_t::from_errno(ENOENT), notFound);
    EXPECT_EQ(5, searching.wait());
    EXPECT_EQ(-1, exact.wait());
}

TEST_F(ProcessTest, PathWithASlashIsTakenAsItIsWhenTheSearchIsAskedFor) {
    const std::vector<std::string> actions{"exit", "5"};
    ChildRun run;

    ASSERT_EQ(result_t::no_error(),
              run.process->start(KOLVAN_TEST_CHILD, argumentsOf(actions), {}, "", 0, 0, 1));

    EXPECT_EQ(5, run.wait());
}

TEST_F(ProcessTest, OnlyStandardOutputAndStandardErrorCanBeConnected) {
    const ref_ptr_t<IProcess> process = IProcess::create();
    const auto reader = make_ref_counted<RecordingReader>();

    for (const int number : {-1, 0, 3, 4}) {
        EXPECT_EQ(result_t::from_errno(EINVAL), process->connectOutputStream(number, reader));
    }
}

TEST_F(ProcessTest, StreamsThatAreNotConnectedAreOurs) {
    const ref_ptr_t<IProcess> process = IProcess::create();
    std::string out;
    std::string err;
    {
        const CapturedStream capturedOut(1);
        const CapturedStream capturedErr(2);
        ASSERT_EQ(result_t::no_error(), startProgram(*process, KOLVAN_TEST_CHILD,
                                                     {"text", "1", "to ours", "text", "2", "too"}));
        EXPECT_EQ(0, process->wait());
        out = capturedOut.text();
        err = capturedErr.text();
    }

    EXPECT_EQ("to ours", out);
    EXPECT_EQ("too", err);
}

TEST_F(ProcessTest, AdditionalPipesAreNumberedFromThreeUpward) {
    const ref_ptr_t<IProcess> process = IProcess::create();
    std::vector<ref_ptr_t<RecordingReader>> readers;
    for (int number = 3; number < 7; ++number) {
        readers.push_back(make_ref_counted<RecordingReader>());
        std::string told = "unset";
        ASSERT_EQ(result_t::no_error(), process->openOutputPipe(readers.back(), told));
        EXPECT_EQ(std::to_string(number), told);
    }

    ASSERT_EQ(result_t::no_error(), startProgram(*process, KOLVAN_TEST_CHILD,
                                                 {"text", "6", "six", "text", "3", "three", "text",
                                                  "5", "five", "text", "4", "four"}));

    EXPECT_EQ(0, withinDeadline([&] { return process->wait(); }));
    EXPECT_EQ("three", readers[0]->text());
    EXPECT_EQ("four", readers[1]->text());
    EXPECT_EQ("five", readers[2]->text());
    EXPECT_EQ("six", readers[3]->text());
}

TEST_F(ProcessTest, NumbersOfAdditionalPipesEndWhereThoseOfTheirOwnEndsBegin) {
    const ref_ptr_t<IProcess> process = IProcess::create();
    std::string told;
    for (int number = 3; number < 8; ++number) {
        ASSERT_EQ(result_t::no_error(),
                  process->openOutputPipe(make_ref_counted<RecordingReader>(), told));
    }
    const auto before = openDescriptors();

    EXPECT_EQ(result_t::from_errno(EMFILE),
              process->openOutputPipe(make_ref_counted<RecordingReader>(), told));

    EXPECT_EQ("7", told);
    EXPECT_EQ(before, openDescriptors());
}

TEST_F(ProcessTest, ChildThatSomebodyElseHasReapedIsAnError) {
    const ref_ptr_t<IProcess> process = IProcess::create();
    ASSERT_EQ(result_t::no_error(), startProgram(*process, KOLVAN_TEST_CHILD, {"exit", "3"}));
    withinDeadline([] { EXPECT_LT(0, ::waitpid(-1, nullptr, 0)); });

    try {
        withinDeadline([&] { return process->wait(); });
        ADD_FAILURE() << "an exit code out of nothing";
    } catch (const std::system_error& error) {
        EXPECT_EQ(ECHILD, error.code().value());
    }
}

TEST_F(ProcessTest, IsDestroyedWithoutAStart) {
    const ref_ptr_t<IProcess> empty = IProcess::create();
    withinDeadline([] { const ChildRun prepared; });

    EXPECT_TRUE(empty);
}

TEST_F(ProcessTest, DestructionLeavesARunningChildAlone) {
    Fifo fifo(directory.entry("fifo"));
    auto run = std::make_unique<ChildRun>();
    ASSERT_EQ(result_t::no_error(),
              run->start({"report", "1", "pid", "await", fifo.path(), "exit", "5"}));
    ASSERT_TRUE(run->out->waitFor("\n"));
    const pid_t child = std::stoi(run->out->text());

    withinDeadline([&] { run.reset(); });
    fifo.release();

    EXPECT_EQ(5, exitCodeOfOurChild(child));
}

TEST_F(ProcessTest, NoCallbackComesAfterTheDestruction) {
    const auto reader = make_ref_counted<RecordingReader>();
    Fifo fifo(directory.entry("fifo"));
    pid_t child = 0;
    withinDeadline([&] {
        const ref_ptr_t<IProcess> process = IProcess::create();
        EXPECT_EQ(result_t::no_error(), process->connectOutputStream(1, reader));
        EXPECT_EQ(result_t::no_error(),
                  startProgram(*process, KOLVAN_TEST_CHILD,
                               {"report", "1", "pid", "ignore", std::to_string(SIGPIPE), "await",
                                fifo.path(), "text", "1", "late"}));
        EXPECT_TRUE(reader->waitFor("\n"));
        child = std::stoi(reader->text());
    });
    const std::string before = reader->text();

    fifo.release();
    ASSERT_EQ(child, withinDeadline([&] { return ::waitpid(child, nullptr, 0); }));

    EXPECT_EQ(before, reader->text());
}

TEST_F(ProcessTest, TypeIsTheRegisteredOne) {
    EXPECT_EQ("dasID_basekit2::process::IProcess", IProcess::create()->get_type());
    EXPECT_EQ("dasID_None",
              make_ref_counted<environment_t>(std::vector<std::string>{})->get_type());
}

}  // namespace kolvan::test
