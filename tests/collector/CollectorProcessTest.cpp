#include "collector/CollectorProcess.h"

#include "collector/ProcessFeedbackReader.h"
#include "collector/ProcessOutputReader.h"
#include "tests/collector/CollectorSupport.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/ThreadShortage.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

namespace kolvan::test {

namespace fs = std::filesystem;

using cagnt1::operations::CollectorProcess;
using cagnt1::operations::ICollectorProcess;
using cagnt1::operations::OperationMessenger;

namespace {

/// Whether the readers of feedback, standard output and standard error have been connected.
std::array<bool, 3> attachedReaders(const CollectorProcess& process);

// In an explicit instantiation any member may be named, private ones too.
template <auto Feedback, auto Stdout, auto Stderr>
struct AttachedReaders {
    friend std::array<bool, 3> attachedReaders(const CollectorProcess& process) {
        return {(process.*Feedback)->attached, (process.*Stdout)->attached,
                (process.*Stderr)->attached};
    }
};
template struct AttachedReaders<&CollectorProcess::feedbackReader, &CollectorProcess::stdoutReader,
                                &CollectorProcess::stderrReader>;

class CollectorProcessTest : public AuditedProcessTest {
protected:
    std::shared_ptr<ICollectorProcess> created(const Arguments& arguments,
                                               const std::string& executable = KOLVAN_TEST_CHILD) {
        return std::make_shared<CollectorProcess>(executable, directory.path().string(), arguments,
                                                  channels.messenger());
    }

    /// @return the exit code
    int run(const Arguments& arguments) {
        const auto process = created(arguments);
        EXPECT_TRUE(process->start());
        return withinDeadline([&] { return process->wait(); });
    }

    /// Expects that the process is never started, for `reason`.
    void expectNeverStarted(ICollectorProcess& process, const std::string& executable,
                            const std::string& reason) {
        EXPECT_FALSE(process.start());
        EXPECT_EQ(-1, withinDeadline([&] { return process.wait(); }));
        EXPECT_EQ(Arguments{executable + ": " + reason + "\n"}, channels.err.chunks());
        EXPECT_EQ("", channels.out.text() + channels.feedback.text());
    }

    std::string script(const std::string& text) {
        const std::string file = directory.write("script", "#!/bin/sh\n" + text);
        EXPECT_EQ(0, ::chmod(file.c_str(), 0755));
        return file;
    }

    TemporaryDirectory directory;
    Channels channels;
};

}  // namespace

TEST_F(CollectorProcessTest, FeedbackOptionsFollowTheArguments) {
    const auto process = created({"A", "B"}, script("printf '%s\\n' \"$@\"\n"));

    EXPECT_TRUE(process->start());

    EXPECT_EQ(0, process->wait());
    EXPECT_EQ("A\nB\n--ui-output-format\nxml\n--ui-output-fd\n3\n", channels.out.text());
}

TEST_F(CollectorProcessTest, WithoutArgumentsThereAreTheFeedbackOptionsOnly) {
    const auto process = created({}, script("printf '%s\\n' \"$@\"\n"));

    EXPECT_TRUE(process->start());

    EXPECT_EQ(0, process->wait());
    EXPECT_EQ("--ui-output-format\nxml\n--ui-output-fd\n3\n", channels.out.text());
}

TEST_F(CollectorProcessTest, ArgumentsArriveUnchanged) {
    const auto process = created({"", "a b", "\"'$HOME`id`*\\", "two\nlines", "\xFF\xFE"},
                                 script("printf '<%s>' \"$@\"\n"));

    EXPECT_TRUE(process->start());

    EXPECT_EQ(0, process->wait());
    EXPECT_EQ(
        "<><a b><\"'$HOME`id`*\\><two\nlines><\xFF\xFE>"
        "<--ui-output-format><xml><--ui-output-fd><3>",
        channels.out.text());
}

TEST_F(CollectorProcessTest, ArgumentsAndMessengerAreCopiedByTheConstructor) {
    Arguments arguments{"text", "1", "first"};
    OperationMessenger messenger = channels.messenger();
    const auto process = std::make_shared<CollectorProcess>(
        KOLVAN_TEST_CHILD, directory.path().string(), arguments, messenger);

    arguments.assign({"text", "1", "changed"});
    messenger = {};

    EXPECT_TRUE(process->start());
    EXPECT_EQ(0, process->wait());
    EXPECT_EQ("first", channels.out.text());
}

TEST_F(CollectorProcessTest, ConstructionStartsNothing) {
    const std::string file = directory.entry("made-by-the-child");
    (void)created({}, script("touch '" + file + "'\n"));

    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ("", channels.err.text());
}

TEST_F(CollectorProcessTest, EachChannelGoesToItsOwnCallback) {
    EXPECT_EQ(0, run({"text", "1", "output", "text", "2", "error", "text", "3", "feedback"}));

    EXPECT_EQ("output", channels.out.text());
    EXPECT_EQ("error", channels.err.text());
    EXPECT_EQ("feedback", channels.feedback.text());
}

TEST_F(CollectorProcessTest, ChunkPassesAsItStands) {
    Fifo fifo(directory.entry("fifo"));
    const auto process = created({"text", "3", "<a>\n<b>", "text", "2", "half", "await",
                                  fifo.path(), "text", "3", "</b>\n", "text", "2", " a line\n"});
    EXPECT_TRUE(process->start());
    EXPECT_TRUE(channels.feedback.waitFor("<b>"));
    EXPECT_TRUE(channels.err.waitFor("half"));
    fifo.release();

    EXPECT_EQ(0, process->wait());
    EXPECT_EQ((Arguments{"<a>\n<b>", "</b>\n"}), channels.feedback.chunks());
    EXPECT_EQ((Arguments{"half", " a line\n"}), channels.err.chunks());
}

TEST_F(CollectorProcessTest, FloodOfAllChannelsArrivesWholeAndInOrder) {
    constexpr std::uint64_t kBytes = 4 * 1024 * 1024;
    const std::array readers{basekit2::make_ref_counted<PatternReader>(1),
                             basekit2::make_ref_counted<PatternReader>(2),
                             basekit2::make_ref_counted<PatternReader>(3)};
    const auto into = [&](std::size_t index) {
        return [reader = readers.at(index)](const std::string& text) {
            (void)reader->onData(text.data(), static_cast<std::int32_t>(text.size()));
        };
    };
    const auto process = std::make_shared<CollectorProcess>(
        KOLVAN_TEST_CHILD, directory.path().string(),
        Arguments{"flood", "1,2,3", "65536", std::to_string(kBytes)},
        OperationMessenger{into(2), into(0), into(1)});

    EXPECT_TRUE(process->start());

    EXPECT_EQ(0, withinDeadline([&] { return process->wait(); }));
    for (const auto& reader : readers) {
        EXPECT_EQ(kBytes, reader->matchingBytes());
    }
}

TEST_F(CollectorProcessTest, CallbacksRunOnOneThreadThatIsNotTheCallers) {
    std::mutex threadsMutex;
    std::set<std::thread::id> threads;
    const auto note = [&](const std::string&) {
        const std::lock_guard lock(threadsMutex);
        threads.insert(std::this_thread::get_id());
    };
    const auto process = std::make_shared<CollectorProcess>(
        KOLVAN_TEST_CHILD, directory.path().string(),
        Arguments{"text", "1", "x", "text", "2", "x", "text", "3", "x"},
        OperationMessenger{note, note, note});

    EXPECT_TRUE(process->start());
    EXPECT_EQ(0, process->wait());

    EXPECT_EQ(1U, threads.size());
    EXPECT_EQ(0U, threads.count(std::this_thread::get_id()));
}

TEST_F(CollectorProcessTest, EmptyCallbacksDiscardAllOutput) {
    const auto process = std::make_shared<CollectorProcess>(
        KOLVAN_TEST_CHILD, directory.path().string(),
        Arguments{"flood", "1,2,3", "65536", "1000000", "exit", "4"}, OperationMessenger{});

    EXPECT_TRUE(process->start());

    EXPECT_EQ(4, withinDeadline([&] { return process->wait(); }));
}

TEST_F(CollectorProcessTest, OneEmptyCallbackLeavesTheOthers) {
    OperationMessenger messenger = channels.messenger();
    messenger.onStdout = {};
    const auto process = std::make_shared<CollectorProcess>(
        KOLVAN_TEST_CHILD, directory.path().string(),
        Arguments{"text", "1", "dropped", "text", "2", "error", "text", "3", "feedback"},
        messenger);

    EXPECT_TRUE(process->start());

    EXPECT_EQ(0, process->wait());
    EXPECT_EQ("", channels.out.text());
    EXPECT_EQ("error", channels.err.text());
    EXPECT_EQ("feedback", channels.feedback.text());
}

TEST_F(CollectorProcessTest, ExitCodeIsTheChilds) {
    EXPECT_EQ(0, run({}));
    EXPECT_EQ(3, run({"exit", "3"}));
    EXPECT_EQ(255, run({"exit", "255"}));
    EXPECT_EQ(128 + SIGSEGV, run({"die", std::to_string(SIGSEGV)}));
}

TEST_F(CollectorProcessTest, RunsInItsWorkingDirectory) {
    EXPECT_EQ(0, run({"report", "1", "directory"}));

    EXPECT_EQ(fs::canonical(directory.path()).string() + "\n", channels.out.text());
}

TEST_F(CollectorProcessTest, ChildHoldsTheNullDeviceItsStreamsAndTheFeedbackPipeOnly) {
    const basekit2::UniqueFd careless(::dup(0));

    EXPECT_EQ(0, run({"report", "1", "descriptors"}));

    EXPECT_EQ(kCleanDescriptors, withNamedPipes(channels.out.text()));
}

TEST_F(CollectorProcessTest, ChildHasOurEnvironment) {
    ASSERT_EQ(0, ::setenv("KOLVAN_TEST_VALUE", "passed on", 1));

    EXPECT_EQ(0, run({"report", "1", "environment"}));
    ::unsetenv("KOLVAN_TEST_VALUE");

    EXPECT_NE(std::string::npos, channels.out.text().find("KOLVAN_TEST_VALUE=passed on\n"));
}

TEST_F(CollectorProcessTest, BareNameIsFoundAlongThePath) {
    TemporaryDirectory programs;  // not the directory in which the process starts
    ASSERT_EQ(0, ::chmod(programs.write("searched", "#!/bin/sh\nexit 7\n").c_str(), 0755));
    const PathVariable path("/no/such/directory:" + programs.path().string());
    const auto process = created({}, "searched");

    EXPECT_TRUE(process->start());

    EXPECT_EQ(7, withinDeadline([&] { return process->wait(); }));
}

TEST_F(CollectorProcessTest, SecondStartIsRefusedAndStartsNothing) {
    const std::string log = directory.entry("log");
    Fifo fifo(directory.entry("fifo"));
    const auto process =
        created({fifo.path()}, script("echo started >> '" + log +
                                      "'\nexec '" KOLVAN_TEST_CHILD "' await \"$1\" exit 6\n"));
    ASSERT_TRUE(process->start());

    EXPECT_FALSE(process->start());

    fifo.release();
    EXPECT_EQ(6, withinDeadline([&] { return process->wait(); }));
    EXPECT_FALSE(process->start());
    EXPECT_EQ(6, process->wait());
    EXPECT_EQ("started\n", readFile(log));
    EXPECT_EQ("", channels.err.text());
}

TEST_F(CollectorProcessTest, StartAfterAFailedOneIsRefusedSilently) {
    const std::string file = directory.entry("missing");
    const auto process = created({}, file);
    ASSERT_FALSE(process->start());
    fs::rename(script("exit 0\n"), file);

    EXPECT_FALSE(process->start());

    EXPECT_EQ(-1, process->wait());
    EXPECT_EQ(Arguments{file + ": No such file or directory\n"}, channels.err.chunks());
}

TEST_F(CollectorProcessTest, MissingExecutableIsOneLineOnStandardErrorAndTheCodeMinusOne) {
    const std::string file = directory.entry("missing");

    expectNeverStarted(*created({"A"}, file), file, "No such file or directory");
}

TEST_F(CollectorProcessTest, ExecutableWithoutTheRunBitIsOneLineOnStandardError) {
    const std::string file = script("exit 0\n");
    ASSERT_EQ(0, ::chmod(file.c_str(), 0644));

    expectNeverStarted(*created({}, file), file, "Permission denied");
}

TEST_F(CollectorProcessTest, ExecutableOfAnotherFormatIsOneLineOnStandardError) {
    const std::string file = directory.write("file", "neither script nor program");
    ASSERT_EQ(0, ::chmod(file.c_str(), 0755));

    expectNeverStarted(*created({}, file), file, "Exec format error");
}

TEST_F(CollectorProcessTest, MissingWorkingDirectoryIsOneLineOnStandardError) {
    CollectorProcess process(KOLVAN_TEST_CHILD, directory.entry("missing"), {},
                             channels.messenger());

    expectNeverStarted(process, KOLVAN_TEST_CHILD, "No such file or directory");
}

TEST_F(CollectorProcessTest, ArgumentThatIsTooLongIsOneLineOnStandardError) {
    expectNeverStarted(*created({"text", "1", std::string(1000000, 'x')}), KOLVAN_TEST_CHILD,
                       "Argument list too long");
}

// From plenty downward: the sanitizers look into a type's table when they first meet it, for which
// they need a pipe themselves, and call the type broken when they get none.
TEST_F(CollectorProcessTest, LackOfDescriptorsIsOneLineOnStandardErrorWhicheverPipeLacksOne) {
    constexpr std::size_t kPlenty = 30;
    std::size_t started = 0;
    std::size_t refused = 0;
    for (std::size_t room = kPlenty + 1; room-- > 0;) {
        Channels attempt;
        const auto process =
            std::make_shared<CollectorProcess>(KOLVAN_TEST_CHILD, directory.path().string(),
                                               Arguments{"exit", "5"}, attempt.messenger());
        bool hasStarted = false;
        {
            const CrowdedDescriptors crowd(room);
            hasStarted = process->start();
        }

        EXPECT_EQ(hasStarted ? 5 : -1, withinDeadline([&] { return process->wait(); })) << room;
        EXPECT_EQ(hasStarted ? Arguments{} : Arguments{KOLVAN_TEST_CHILD ": Too many open files\n"},
                  attempt.err.chunks())
            << room;
        EXPECT_EQ("", attempt.out.text() + attempt.feedback.text()) << room;
        (hasStarted ? started : refused) += 1;
    }

    EXPECT_LT(0U, started);
    // Three pipes, each of which needs a descriptor more than the one before.
    EXPECT_LE(3U, refused);
}

TEST_F(CollectorProcessTest, ReadersAreConnectedInTheOrderFeedbackStdoutStderr) {
    constexpr std::size_t kPlenty = 30;
    std::set<std::array<bool, 3>> connected;
    for (std::size_t room = kPlenty + 1; room-- > 0;) {
        CollectorProcess process(KOLVAN_TEST_CHILD, directory.path().string(), {}, {});
        {
            const CrowdedDescriptors crowd(room);
            (void)process.start();
        }
        (void)withinDeadline([&] { return process.wait(); });
        connected.insert(attachedReaders(process));
    }

    EXPECT_EQ(
        (std::set<std::array<bool, 3>>{
            {false, false, false}, {true, false, false}, {true, true, false}, {true, true, true}}),
        connected);
}

TEST_F(CollectorProcessTest, LackOfAThreadIsOneLineOnStandardError) {
    const auto process = created({"text", "1", "started"});
    ThreadShortage shortage;
    shortage.begin();

    EXPECT_FALSE(process->start());

    shortage.end();
    EXPECT_EQ(-1, withinDeadline([&] { return process->wait(); }));
    EXPECT_EQ(Arguments{KOLVAN_TEST_CHILD ": Resource temporarily unavailable\n"},
              channels.err.chunks());
    EXPECT_EQ("", channels.out.text() + channels.feedback.text());
}

TEST_F(CollectorProcessTest, FailedStartWithoutACallbackForItsReasonIsSilent) {
    OperationMessenger messenger = channels.messenger();
    messenger.onStderr = {};
    CollectorProcess process(directory.entry("missing"), directory.path().string(), {}, messenger);

    EXPECT_FALSE(process.start());
    EXPECT_EQ(-1, process.wait());
    EXPECT_EQ("", channels.out.text() + channels.feedback.text());
}

TEST_F(CollectorProcessTest, ProcessThatWasNotStartedHasTheCodeMinusOneAndCannotBeAsked) {
    const auto process = created({});

    EXPECT_EQ(-1, process->wait());
    EXPECT_FALSE(process->terminate());
}

TEST_F(CollectorProcessTest, ProcessThatCouldNotBeStartedCannotBeAskedToEnd) {
    const auto process = created({}, directory.entry("missing"));
    ASSERT_FALSE(process->start());

    EXPECT_FALSE(process->terminate());
}

TEST_F(CollectorProcessTest, RunningProcessCanBeAskedToEndWhileAnotherThreadWaits) {
    const auto process = created({"text", "1", "ready", "stay"});
    ASSERT_TRUE(process->start());
    ASSERT_TRUE(channels.out.waitFor("ready"));
    auto code = std::async(std::launch::async, [&] { return process->wait(); });

    EXPECT_TRUE(process->terminate());

    EXPECT_EQ(128 + SIGTERM, withinDeadline([&] { return code.get(); }));
}

TEST_F(CollectorProcessTest, ProcessThatHandlesTheRequestEndsInItsOwnWay) {
    const std::string signal = std::to_string(SIGTERM);
    const auto process = created({"block", signal, "text", "1", "ready", "await-signal", signal,
                                  "text", "3", "whole trace", "exit", "0"});
    ASSERT_TRUE(process->start());
    ASSERT_TRUE(channels.out.waitFor("ready"));

    EXPECT_TRUE(process->terminate());

    EXPECT_EQ(0, withinDeadline([&] { return process->wait(); }));
    EXPECT_EQ("whole trace", channels.feedback.text());
}

TEST_F(CollectorProcessTest, DestructionNeitherWaitsNorEndsTheChild) {
    Fifo fifo(directory.entry("fifo"));
    auto process = created({"report", "1", "pid", "await", fifo.path(), "exit", "5"});
    ASSERT_TRUE(process->start());
    ASSERT_TRUE(channels.out.waitFor("\n"));
    const pid_t child = std::stoi(channels.out.text());

    withinDeadline([&] { process.reset(); });
    fifo.release();

    EXPECT_EQ(5, exitCodeOfOurChild(child));
}

TEST_F(CollectorProcessTest, GrandchildThatKeepsThePipesDoesNotKeepTheWaitFromReturning) {
    Fifo leash(directory.entry("leash"));
    const auto process =
        created({"text", "3", "feedback", "grandchild", leash.path(), "hold", "exit", "2"});
    ASSERT_TRUE(process->start());

    EXPECT_EQ(2, withinDeadline([&] { return process->wait(); }));
    EXPECT_EQ("feedback", channels.feedback.text());

    leash.release();
    EXPECT_LT(0, reapGrandchild());
}

TEST_F(CollectorProcessTest, CallbackThatThrowsDoesNotEndTheProgram) {
    OperationMessenger messenger = channels.messenger();
    messenger.onStdout = [](const std::string&) { throw std::runtime_error("no thread left"); };
    const auto process = std::make_shared<CollectorProcess>(
        KOLVAN_TEST_CHILD, directory.path().string(),
        Arguments{"text", "1", "output", "text", "2", "error", "exit", "3"}, messenger);

    EXPECT_TRUE(process->start());

    EXPECT_EQ(3, withinDeadline([&] { return process->wait(); }));
    EXPECT_EQ("error", channels.err.text());
}

}  // namespace kolvan::test
