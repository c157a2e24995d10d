#include "collector/Collector.h"

#include "tests/collector/CollectorSupport.h"
#include "tests/support/Gate.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <future>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <malloc.h>

namespace kolvan::test {

namespace fs = std::filesystem;

using cagnt1::operations::Collector;
using cagnt1::operations::ICollector;
using cagnt1::operations::ICommandRunner;
using cagnt1::operations::OperationMessenger;

namespace {

const std::string kAlreadyRunning = "Collection is already running";
const std::string kNotRunning = "Collection is not running";
const std::string kOptionFile = "/r/config/trcap_remote.options";

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kHeapCanBeMeasured = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kHeapCanBeMeasured = false;
#else
constexpr bool kHeapCanBeMeasured = true;
#endif
#else
constexpr bool kHeapCanBeMeasured = true;
#endif

/// Runs of a real child.
class CollectorTest : public AuditedProcessTest {
protected:
    InstalledCollector installed;
    Channels channels;
    OperationMessenger messenger = channels.messenger();
};

/// Runs that are played, so that every moment of them can be held.
class StagedCollectorTest : public AuditedProcessTest {
protected:
    /// Runs `duringCollection` while a collection with that option file runs.
    /// @return what the start gave
    int collect(const std::string& optionFile, const std::function<void()>& duringCollection,
                int code = 0) {
        played = [this, duringCollection, code](const Arguments& arguments, OperationMessenger&) {
            if (isCollection(arguments)) {
                duringCollection();
                return code;
            }
            return commandCode;
        };
        return collector.startCollection(optionFile, messenger);
    }

    int start() { return collector.startCollection(kOptionFile, messenger); }
    int command(const std::string& text) {
        return collector.sendCollectionCommand(text, messenger);
    }
    std::string startError() {
        return errorOf([this] { (void)start(); });
    }
    std::string commandError() {
        return errorOf([this] { (void)command("stop"); });
    }

    TemporaryDirectory directory;
    OperationMessenger messenger;
    int commandCode = 0;
    StagedCollector::Run played;
    StagedCollector collector{directory.entry("target"),
                              [this](const Arguments& arguments, OperationMessenger& caller) {
                                  return played(arguments, caller);
                              }};
};

}  // namespace

TEST_F(CollectorTest, IsACommandRunner) {
    EXPECT_TRUE((std::is_base_of_v<ICommandRunner, ICollector>));
    EXPECT_TRUE((std::is_base_of_v<ICollector, Collector>));
    EXPECT_TRUE(std::has_virtual_destructor_v<ICommandRunner>);
}

TEST_F(CollectorTest, ExecutePassesItsArgumentsUnchanged) {
    const Arguments arguments{"text", "1", "a b", "text", "2", "$HOME 'x'"};
    Collector collector(installed.installDirectory());

    EXPECT_EQ(0, collector.execute(arguments, messenger));

    EXPECT_EQ(std::vector<Arguments>{withFeedbackOptions(arguments)}, installed.runs());
    EXPECT_EQ("a b", channels.out.text());
    EXPECT_EQ("$HOME 'x'", channels.err.text());
}

TEST_F(CollectorTest, ExecuteWithoutArgumentsPassesTheFeedbackOptionsOnly) {
    Collector collector(installed.installDirectory());

    EXPECT_EQ(0, collector.execute({}, messenger));

    EXPECT_EQ(std::vector<Arguments>{withFeedbackOptions({})}, installed.runs());
}

TEST_F(CollectorTest, ExecuteRunsTheLocatedExecutableInThePackageDirectory) {
    installed.replaceBy("printf '%s\\n' \"$0\"\npwd -P\n");
    Collector collector(installed.installDirectory());

    EXPECT_EQ(0, collector.execute({}, messenger));

    EXPECT_EQ(
        installed.executable() + "\n" + fs::canonical(installed.packageDirectory()).string() + "\n",
        channels.out.text());
}

TEST_F(CollectorTest, ExecuteStreamsEveryChannelWhileItRuns) {
    Fifo fifo(installed.entry("fifo"));
    Collector collector(installed.installDirectory());
    WatchedCall<int> run([&] {
        return collector.execute({"text", "1", "output", "text", "2", "error", "text", "3",
                                  "feedback", "await", fifo.path()},
                                 messenger);
    });

    EXPECT_TRUE(channels.out.waitFor("output"));
    EXPECT_TRUE(channels.err.waitFor("error"));
    EXPECT_TRUE(channels.feedback.waitFor("feedback"));

    fifo.release();
    EXPECT_EQ(0, run.get());
}

TEST_F(CollectorTest, ExecuteCallsBackOnOneOtherThread) {
    std::mutex threadsMutex;
    std::set<std::thread::id> threads;
    const auto note = [&](const std::string&) {
        const std::lock_guard lock(threadsMutex);
        threads.insert(std::this_thread::get_id());
    };
    OperationMessenger noting{note, note, note};
    Collector collector(installed.installDirectory());

    EXPECT_EQ(0, collector.execute({"text", "1", "x", "text", "2", "x", "text", "3", "x"}, noting));

    EXPECT_EQ(1U, threads.size());
    EXPECT_EQ(0U, threads.count(std::this_thread::get_id()));
}

TEST_F(CollectorTest, ExecuteReturnsTheExitCode) {
    Collector collector(installed.installDirectory());

    EXPECT_EQ(0, collector.execute({}, messenger));
    EXPECT_EQ(3, collector.execute({"exit", "3"}, messenger));
    EXPECT_EQ(128 + SIGABRT, collector.execute({"die", std::to_string(SIGABRT)}, messenger));
}

TEST_F(CollectorTest, ExecuteHasDeliveredEverythingWhenItReturns) {
    Collector collector(installed.installDirectory());
    for (int round = 0; round < 50; ++round) {
        Channels own;
        OperationMessenger ownMessenger = own.messenger();

        ASSERT_EQ(7, collector.execute(
                         {"text", "1", "o", "text", "2", "e", "text", "3", "f", "exit", "7"},
                         ownMessenger));

        ASSERT_EQ("o", own.out.text());
        ASSERT_EQ("e", own.err.text());
        ASSERT_EQ("f", own.feedback.text());
    }
}

TEST_F(CollectorTest, RunsOfManyThreadsDoNotDisturbEachOther) {
    constexpr int kThreads = 10;
    Collector collector(installed.installDirectory());
    std::vector<std::future<void>> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.push_back(std::async(std::launch::async, [&collector, i] {
            for (int round = 0; round < 5; ++round) {
                Channels own;
                OperationMessenger ownMessenger = own.messenger();
                EXPECT_EQ(i, collector.execute(
                                 {"text", "1", std::to_string(i), "exit", std::to_string(i)},
                                 ownMessenger));
                EXPECT_EQ(std::to_string(i), own.out.text());
            }
        }));
    }

    for (auto& thread : threads) {
        thread.get();
    }
}

TEST_F(CollectorTest, WithoutAPackageARunIsNeverStarted) {
    const TemporaryDirectory empty;
    Collector collector(empty.path().string());

    EXPECT_EQ(-1, collector.execute({"exit", "0"}, messenger));

    EXPECT_EQ(Arguments{": No such file or directory\n"}, channels.err.chunks());
    EXPECT_EQ("", channels.out.text() + channels.feedback.text());
}

TEST_F(CollectorTest, RunOfAnExecutableThatHasGoneIsNeverStarted) {
    Collector collector(installed.installDirectory());
    fs::remove(installed.executable());

    EXPECT_EQ(-1, collector.execute({}, messenger));

    EXPECT_EQ(Arguments{installed.executable() + ": No such file or directory\n"},
              channels.err.chunks());
}

TEST_F(CollectorTest, CollectionThatIsNeverStartedGivesACodeAndLeavesNoCollectionBehind) {
    Collector collector(installed.installDirectory());
    installed.setRunnable(false);

    EXPECT_EQ(-1, collector.startCollection(kOptionFile, messenger));

    EXPECT_EQ(Arguments{installed.executable() + ": Permission denied\n"}, channels.err.chunks());
    EXPECT_EQ(kNotRunning,
              errorOf([&] { (void)collector.sendCollectionCommand("stop", messenger); }));
    EXPECT_TRUE(collector.cancel());
    EXPECT_EQ(-1, collector.startCollection(kOptionFile, messenger));
    EXPECT_EQ(std::vector<Arguments>{}, installed.runs());
}

TEST_F(CollectorTest, CommandReachesTheCollectionThroughASecondProcess) {
    const std::string result = installed.entry("result");
    const std::string optionFile = result + "/config/trcap_remote.options";
    Channels commandChannels;
    OperationMessenger commandMessenger = commandChannels.messenger();
    Collector collector(installed.installDirectory());
    installed.setExitCode(3);
    WatchedCall<int> collection([&] { return collector.startCollection(optionFile, messenger); });
    ASSERT_TRUE(channels.feedback.waitFor("\n"));

    EXPECT_EQ(0, collector.sendCollectionCommand("stop", commandMessenger));

    EXPECT_EQ(3, collection.get());
    EXPECT_EQ((std::vector<Arguments>{withFeedbackOptions({"--option-file", optionFile}),
                                      withFeedbackOptions({"-r", result, "--command", "stop"})}),
              installed.runs());
    EXPECT_EQ("command stop\n", commandChannels.out.text());
    EXPECT_EQ("command stop\n", commandChannels.err.text());
    EXPECT_EQ("command stop\n", commandChannels.feedback.text());
    EXPECT_EQ("", channels.out.text() + channels.err.text());
}

TEST_F(CollectorTest, CodeOfACommandIsThatOfItsOwnProcess) {
    Collector collector(installed.installDirectory());
    WatchedCall<int> collection([&] { return collector.startCollection(kOptionFile, messenger); });
    ASSERT_TRUE(channels.feedback.waitFor("\n"));
    OperationMessenger silent;

    EXPECT_EQ(9, collector.sendCollectionCommand("exit-9", silent));
    EXPECT_EQ(0, collector.sendCollectionCommand("stop", silent));

    EXPECT_EQ(0, collection.get());
}

TEST_F(CollectorTest, CollectionsFollowEachOther) {
    OperationMessenger silent;
    Collector collector(installed.installDirectory());
    for (const int code : {3, 0, 5}) {
        Channels own;
        OperationMessenger ownMessenger = own.messenger();
        installed.setExitCode(code);
        WatchedCall<int> collection(
            [&] { return collector.startCollection(kOptionFile, ownMessenger); });
        ASSERT_TRUE(own.feedback.waitFor("\n"));
        ASSERT_EQ(0, collector.sendCollectionCommand("stop", silent));

        EXPECT_EQ(code, collection.get());
        EXPECT_EQ(kNotRunning,
                  errorOf([&] { (void)collector.sendCollectionCommand("stop", silent); }));
    }
}

TEST_F(CollectorTest, EndedRunsAreForgotten) {
    if (!kHeapCanBeMeasured) {
        GTEST_SKIP() << "the sanitizers replace the heap that is measured here";
    }
    constexpr int kRuns = 1000;
    constexpr std::size_t kLeastOfARun = 64;  // bytes: less than a forgotten run would leave
    Collector collector(installed.installDirectory());
    installed.setRunnable(false);
    OperationMessenger silent;
    const auto run = [&] { ASSERT_EQ(-1, collector.execute({"some", "arguments"}, silent)); };
    for (int i = 0; i < 50; ++i) {
        run();
    }
    const std::size_t before = ::mallinfo2().uordblks;

    for (int i = 0; i < kRuns; ++i) {
        run();
    }

    EXPECT_GT(before + kRuns * kLeastOfARun, ::mallinfo2().uordblks);
}

TEST_F(StagedCollectorTest, CollectionRunsWithItsOptionFileAndTheCallersMessenger) {
    const OperationMessenger* given = nullptr;
    played = [&](const Arguments&, OperationMessenger& caller) {
        given = &caller;
        return 3;
    };

    EXPECT_EQ(3, start());

    EXPECT_EQ((std::vector<Arguments>{{"--option-file", kOptionFile}}), collector.runs());
    EXPECT_EQ(&messenger, given);
}

TEST_F(StagedCollectorTest, CollectionRunsOnTheCallersThread) {
    std::thread::id ran;

    (void)collect(kOptionFile, [&] { ran = std::this_thread::get_id(); });

    EXPECT_EQ(std::this_thread::get_id(), ran);
}

TEST_F(StagedCollectorTest, SecondStartIsRefusedAndStartsNothing) {
    std::string error;

    const int code = collect(
        kOptionFile, [&] { error = startError(); }, 4);

    EXPECT_EQ(kAlreadyRunning, error);
    EXPECT_EQ(4, code);
    EXPECT_EQ((std::vector<Arguments>{{"--option-file", kOptionFile}}), collector.runs());
}

TEST_F(StagedCollectorTest, RefusedStartLeavesTheRunningCollectionAsItIs) {
    (void)collect(kOptionFile, [&] {
        (void)errorOf([&] {
            (void)collector.startCollection("/other/config/trcap_remote.options", messenger);
        });
        EXPECT_EQ(0, command("stop"));
        EXPECT_EQ(kAlreadyRunning, startError());
    });

    EXPECT_EQ(
        (std::vector<Arguments>{{"--option-file", kOptionFile}, {"-r", "/r", "--command", "stop"}}),
        collector.runs());
}

TEST_F(StagedCollectorTest, CommandWithoutACollectionIsRefusedAndStartsNothing) {
    EXPECT_EQ(kNotRunning, commandError());
    EXPECT_EQ(std::vector<Arguments>{}, collector.runs());
}

TEST_F(StagedCollectorTest, CommandAfterTheCollectionIsRefused) {
    EXPECT_EQ(0, collect(kOptionFile, [] {}));

    EXPECT_EQ(kNotRunning, commandError());
    EXPECT_EQ((std::vector<Arguments>{{"--option-file", kOptionFile}}), collector.runs());
}

TEST_F(StagedCollectorTest, CommandGoesOutWithTheCallersMessengerAndGivesItsCode) {
    OperationMessenger commandMessenger;
    const OperationMessenger* given = nullptr;
    played = [&](const Arguments& arguments, OperationMessenger& caller) {
        if (isCollection(arguments)) {
            EXPECT_EQ(6, collector.sendCollectionCommand("a b", commandMessenger));
            return 0;
        }
        given = &caller;
        return 6;
    };

    EXPECT_EQ(0, start());

    EXPECT_EQ(&commandMessenger, given);
    EXPECT_EQ((Arguments{"-r", "/r", "--command", "a b"}), collector.runs().at(1));
}

TEST_F(StagedCollectorTest, ResultDirectoryIsTwoLevelsAboveTheOptionFile) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"/r/config/trcap_remote.options", "/r"},
        {"/tmp/a b/c/config/trcap_remote.options", "/tmp/a b/c"},
        {"r/config/file", "r"},
        {"/config/file", "/"},
        {"config/file", ""},
        {"file", ""},
        {"/file", ""},
        {"", ""},
        {"/r/../config/file", "/r/.."},
        {"/no/such/place/config/file", "/no/such/place"},
    };
    for (const auto& [optionFile, resultDirectory] : cases) {
        const std::size_t before = collector.runs().size();

        (void)collect(optionFile, [&] { EXPECT_EQ(0, command("stop")); });

        ASSERT_EQ(before + 2, collector.runs().size());
        EXPECT_EQ((Arguments{"--option-file", optionFile}), collector.runs().at(before));
        EXPECT_EQ((Arguments{"-r", resultDirectory, "--command", "stop"}),
                  collector.runs().at(before + 1))
            << optionFile;
    }
}

TEST_F(StagedCollectorTest, RunsMayBeExecutedWhileACollectionRuns) {
    (void)collect(kOptionFile, [&] {
        EXPECT_EQ(0, collector.execute({"A"}, messenger));
        EXPECT_EQ(0, command("stop"));
    });

    EXPECT_EQ((std::vector<Arguments>{
                  {"--option-file", kOptionFile}, {"A"}, {"-r", "/r", "--command", "stop"}}),
              collector.runs());
}

TEST_F(StagedCollectorTest, CommandsToOneCollectionAreNotRunSideBySide) {
    Gate commandBegun;
    Gate commandMayEnd;
    Gate collectionMayEnd;
    Gate collectionBegun;
    played = [&](const Arguments& arguments, OperationMessenger&) {
        if (isCollection(arguments)) {
            collectionBegun.open();
            collectionMayEnd.wait();
        } else if (arguments.back() == "first") {
            commandBegun.open();
            commandMayEnd.wait();
        }
        return 0;
    };
    WatchedCall<int> collection([&] { return start(); });
    collectionBegun.wait();
    WatchedCall<int> first([&] { return command("first"); });
    commandBegun.wait();

    WatchedCall<int> second([&] { return command("second"); });

    EXPECT_TRUE(second.isHeldBack());
    EXPECT_EQ(2U, collector.runs().size());
    commandMayEnd.open();
    EXPECT_EQ(0, first.get());
    EXPECT_EQ(0, second.get());
    collectionMayEnd.open();
    EXPECT_EQ(0, collection.get());
    EXPECT_EQ((Arguments{"-r", "/r", "--command", "second"}), collector.runs().back());
}

TEST_F(StagedCollectorTest, CommandHoldsBackStartsAndCancels) {
    Gate collectionBegun;
    Gate collectionMayEnd;
    Gate commandBegun;
    Gate commandMayEnd;
    played = [&](const Arguments& arguments, OperationMessenger&) {
        if (isCollection(arguments)) {
            collectionBegun.open();
            collectionMayEnd.wait();
        } else if (arguments.back() == "mark") {
            commandBegun.open();
            commandMayEnd.wait();
        } else {
            collectionMayEnd.open();
        }
        return 0;
    };
    WatchedCall<int> collection([&] { return start(); });
    collectionBegun.wait();
    WatchedCall<int> mark([&] { return command("mark"); });
    commandBegun.wait();

    WatchedCall<std::string> otherStart([&] { return startError(); });
    EXPECT_TRUE(otherStart.isHeldBack());
    WatchedCall<bool> cancel([&] { return collector.cancel(); });
    EXPECT_TRUE(cancel.isHeldBack());

    EXPECT_EQ(2U, collector.runs().size());
    commandMayEnd.open();
    EXPECT_EQ(0, mark.get());
    EXPECT_TRUE(cancel.get());
    EXPECT_EQ(0, collection.get());
    // It was refused, or came when the cancelled collection had gone and ran to its end.
    const std::string refusal = otherStart.get();
    EXPECT_TRUE(refusal == kAlreadyRunning || refusal == "no error was thrown") << refusal;
}

TEST_F(StagedCollectorTest, EndOfACollectionWaitsForTheCommandThatRuns) {
    Gate collectionBegun;
    Gate collectionMayEnd;
    Gate commandBegun;
    Gate commandMayEnd;
    played = [&](const Arguments& arguments, OperationMessenger&) {
        (isCollection(arguments) ? collectionBegun : commandBegun).open();
        (isCollection(arguments) ? collectionMayEnd : commandMayEnd).wait();
        return isCollection(arguments) ? 5 : 6;
    };
    WatchedCall<int> collection([&] { return start(); });
    collectionBegun.wait();
    WatchedCall<int> mark([&] { return command("mark"); });
    commandBegun.wait();

    collectionMayEnd.open();

    EXPECT_TRUE(collection.isHeldBack());
    commandMayEnd.open();
    EXPECT_EQ(6, mark.get());
    EXPECT_EQ(5, collection.get());
    EXPECT_EQ(kNotRunning, commandError());
}

TEST_F(StagedCollectorTest, ExceptionOfACollectionPassesAndLeavesTheRecord) {
    played = [](const Arguments& arguments, OperationMessenger&) -> int {
        if (isCollection(arguments)) {
            throw std::runtime_error("out of everything");
        }
        return 8;
    };

    EXPECT_EQ("out of everything", startError());

    EXPECT_EQ(kAlreadyRunning, startError());
    EXPECT_EQ(8, command("stop"));
    EXPECT_EQ((Arguments{"-r", "/r", "--command", "stop"}), collector.runs().back());
    EXPECT_EQ(kAlreadyRunning, startError());
}

TEST_F(StagedCollectorTest, ExceptionOfACommandPassesAndHoldsNothingBack) {
    played = [this](const Arguments& arguments, OperationMessenger&) -> int {
        if (isCollection(arguments)) {
            EXPECT_EQ("no memory", errorOf([&] { (void)command("first"); }));
            EXPECT_EQ(7, withinDeadline([&] { return command("second"); }));
            return 3;
        }
        if (arguments.back() == "first") {
            throw std::runtime_error("no memory");
        }
        return 7;
    };

    EXPECT_EQ(3, start());
    EXPECT_EQ(kNotRunning, commandError());
}

}  // namespace kolvan::test
