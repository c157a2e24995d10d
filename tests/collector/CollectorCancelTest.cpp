#include "collector/Collector.h"

#include "tests/collector/CollectorSupport.h"
#include "tests/support/Gate.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <future>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kolvan::test {

using cagnt1::operations::Collector;
using cagnt1::operations::OperationMessenger;

namespace {

const std::string kAlreadyRunning = "Collection is already running";
const std::string kNotRunning = "Collection is not running";
const std::string kOptionFile = "/r/config/trcap_remote.options";
const Arguments kCancelRun{"-r", "/r", "--command", "cancel"};

/// Runs of a real child.
class CollectorCancelTest : public AuditedProcessTest {
protected:
    /// A run of the collector in the background that is alive when the constructor returns.
    struct LivingRun {
        LivingRun(Collector& collector, const Arguments& actions)
            : call([&collector, actions, this] { return collector.execute(actions, messenger); }) {
            EXPECT_TRUE(channels.out.waitFor("ready"));
        }

        Channels channels;
        OperationMessenger messenger = channels.messenger();
        WatchedCall<int> call;
    };

    /// A run whose process does not exist, and which is held where it reports that: it is known to
    /// its collector and cannot be asked to end.
    struct RefusingRun {
        RefusingRun(InstalledCollector& installed, Collector& collector)
            : messenger{{},
                        {},
                        [this](const std::string&) {
                            reported.open();
                            mayEnd.wait();
                        }},
              call([&collector, this] { return collector.execute({}, messenger); }) {
            reported.wait();
            installed.setRunnable(true);
        }
        ~RefusingRun() { mayEnd.open(); }

        RefusingRun(const RefusingRun&) = delete;
        RefusingRun& operator=(const RefusingRun&) = delete;

        int end() {
            mayEnd.open();
            return call.get();
        }

        Gate reported;
        Gate mayEnd;
        OperationMessenger messenger;
        WatchedCall<int> call;
    };

    InstalledCollector installed;
    Channels channels;
    OperationMessenger messenger = channels.messenger();
    const Arguments staying{"text", "1", "ready", "stay"};
};

/// Runs that are played, so that every moment of them can be held.
class StagedCancelTest : public AuditedProcessTest {
protected:
    /// A collection that ends when `collectionMayEnd` opens; commands do as `onCommand` does.
    int play(const Arguments& arguments, OperationMessenger& caller) {
        if (!isCollection(arguments)) {
            return onCommand(arguments, caller);
        }
        collectionBegun.open();
        collectionMayEnd.wait();
        return 5;
    }

    int start() { return collector.startCollection(kOptionFile, messenger); }

    TemporaryDirectory directory;
    OperationMessenger messenger;
    Gate collectionBegun;
    Gate collectionMayEnd;
    Gate cancelSent;
    StagedCollector::Run onCommand = [this](const Arguments&, OperationMessenger&) {
        cancelSent.open();
        return 0;
    };
    StagedCollector collector{directory.entry("target"),
                              [this](const Arguments& arguments, OperationMessenger& caller) {
                                  return play(arguments, caller);
                              }};
};

/// Outcome of a cancel that may come between a collection's end and the end of its record.
enum class Outcome { True, False, AlreadyRetrieved, Other };

Outcome outcomeOf(Collector& collector) {
    try {
        return collector.cancel() ? Outcome::True : Outcome::False;
    } catch (const std::future_error& error) {
        return error.code() == std::future_errc::future_already_retrieved
                   ? Outcome::AlreadyRetrieved
                   : Outcome::Other;
    }
}

}  // namespace

TEST_F(CollectorCancelTest, WithNothingRunningItSucceedsAndStartsNothing) {
    Collector collector(installed.installDirectory());

    EXPECT_TRUE(collector.cancel());
    EXPECT_TRUE(collector.cancel());

    EXPECT_EQ(std::vector<Arguments>{}, installed.runs());
}

TEST_F(CollectorCancelTest, RunsThatHaveEndedAreSkipped) {
    Collector collector(installed.installDirectory());
    ASSERT_EQ(0, collector.execute({}, messenger));
    ASSERT_EQ(2, collector.execute({"exit", "2"}, messenger));

    EXPECT_TRUE(collector.cancel());

    EXPECT_EQ(2U, installed.runs().size());
}

TEST_F(CollectorCancelTest, AsksTheCollectionThroughItsOwnCommandAndReturnsAfterItsEnd) {
    const std::string result = installed.entry("result");
    const std::string optionFile = result + "/config/trcap_remote.options";
    Collector collector(installed.installDirectory());
    installed.setExitCode(3);
    WatchedCall<int> collection([&] { return collector.startCollection(optionFile, messenger); });
    ASSERT_TRUE(channels.feedback.waitFor("\n"));
    const pid_t child = std::stoi(channels.feedback.text());

    const bool cancelled = withinDeadline([&] { return collector.cancel(); });
    const bool stillThere = isRunning(child);

    EXPECT_TRUE(cancelled);
    EXPECT_FALSE(stillThere);
    EXPECT_EQ(3, collection.get());
    EXPECT_EQ((std::vector<Arguments>{withFeedbackOptions({"--option-file", optionFile}),
                                      withFeedbackOptions({"-r", result, "--command", "cancel"})}),
              installed.runs());
}

TEST_F(CollectorCancelTest, OutputOfTheCancelCommandGoesNowhere) {
    Collector collector(installed.installDirectory());
    WatchedCall<int> collection([&] { return collector.startCollection(kOptionFile, messenger); });
    ASSERT_TRUE(channels.feedback.waitFor("\n"));
    const std::string before = channels.feedback.text();

    EXPECT_TRUE(withinDeadline([&] { return collector.cancel(); }));

    EXPECT_EQ(0, collection.get());
    EXPECT_EQ("", channels.out.text());
    EXPECT_EQ("", channels.err.text());
    EXPECT_EQ(before, channels.feedback.text());
}

TEST_F(CollectorCancelTest, CollectionsCanStartAgainAfterwards) {
    OperationMessenger silent;
    Collector collector(installed.installDirectory());
    for (int round = 0; round < 3; ++round) {
        Channels own;
        OperationMessenger ownMessenger = own.messenger();
        WatchedCall<int> collection(
            [&] { return collector.startCollection(kOptionFile, ownMessenger); });
        ASSERT_TRUE(own.feedback.waitFor("\n"));

        EXPECT_TRUE(withinDeadline([&] { return collector.cancel(); }));

        EXPECT_EQ(0, collection.get());
        EXPECT_EQ(kNotRunning,
                  errorOf([&] { (void)collector.sendCollectionCommand("stop", silent); }));
    }
}

TEST_F(CollectorCancelTest, EveryRunIsAskedToEnd) {
    Collector collector(installed.installDirectory());
    LivingRun first(collector, staying);
    LivingRun second(collector, staying);

    EXPECT_TRUE(collector.cancel());

    EXPECT_EQ(128 + SIGTERM, first.call.get());
    EXPECT_EQ(128 + SIGTERM, second.call.get());
}

TEST_F(CollectorCancelTest, RunThatHandlesTheRequestEndsInItsOwnWay) {
    const std::string signal = std::to_string(SIGTERM);
    Collector collector(installed.installDirectory());
    LivingRun run(collector, {"block", signal, "text", "1", "ready", "await-signal", signal, "text",
                              "3", "whole", "exit", "4"});

    EXPECT_TRUE(collector.cancel());

    EXPECT_EQ(4, run.call.get());
    EXPECT_EQ("whole", run.channels.feedback.text());
}

TEST_F(CollectorCancelTest, DoesNotWaitForTheRunsThatItAsks) {
    Fifo fifo(installed.entry("fifo"));
    Collector collector(installed.installDirectory());
    LivingRun run(collector, {"ignore", std::to_string(SIGTERM), "text", "1", "ready", "await",
                              fifo.path(), "exit", "5"});

    EXPECT_TRUE(collector.cancel());
    fifo.release();

    EXPECT_EQ(5, run.call.get());
}

TEST_F(CollectorCancelTest, RunsAreAskedAfterTheCollectionHasEnded) {
    Fifo fifo(installed.entry("fifo"));
    OperationMessenger collectionMessenger;
    Gate collectionBegun;
    Gate collectionMayEnd;
    Channels* runChannels = nullptr;
    bool livedToTheEnd = false;
    Collector* real = nullptr;
    StagedCollector collector(installed.installDirectory(),
                              [&](const Arguments& arguments, OperationMessenger& caller) {
                                  if (isCollection(arguments)) {
                                      collectionBegun.open();
                                      collectionMayEnd.wait();
                                      fifo.release();
                                      livedToTheEnd = runChannels->out.waitFor("alive");
                                      return 0;
                                  }
                                  if (arguments == kCancelRun) {
                                      collectionMayEnd.open();
                                      return 0;
                                  }
                                  return real->Collector::execute(arguments, caller);
                              });
    real = &collector;
    LivingRun run(collector,
                  {"text", "1", "ready", "await", fifo.path(), "text", "1", "alive", "stay"});
    runChannels = &run.channels;
    WatchedCall<int> collection(
        [&] { return collector.startCollection(kOptionFile, collectionMessenger); });
    collectionBegun.wait();

    EXPECT_TRUE(withinDeadline([&] { return collector.cancel(); }));

    EXPECT_EQ(0, collection.get());
    EXPECT_TRUE(livedToTheEnd);
    EXPECT_EQ(128 + SIGTERM, run.call.get());
}

TEST_F(CollectorCancelTest, RunThatCannotBeAskedMakesItFail) {
    Collector collector(installed.installDirectory());
    installed.setRunnable(false);
    RefusingRun refusing(installed, collector);

    EXPECT_FALSE(collector.cancel());

    EXPECT_EQ(-1, refusing.end());
    EXPECT_TRUE(collector.cancel());
}

TEST_F(CollectorCancelTest, LaterRunsAreAskedThoughAnEarlierOneRefuses) {
    Collector collector(installed.installDirectory());
    installed.setRunnable(false);
    RefusingRun refusing(installed, collector);
    LivingRun living(collector, staying);

    EXPECT_FALSE(collector.cancel());

    EXPECT_EQ(128 + SIGTERM, living.call.get());
    EXPECT_EQ(-1, refusing.end());
}

TEST_F(CollectorCancelTest, LaterRunThatIsAskedDoesNotHideAnEarlierOneThatRefused) {
    Collector collector(installed.installDirectory());
    LivingRun first(collector, staying);
    installed.setRunnable(false);
    RefusingRun refusing(installed, collector);
    LivingRun last(collector, staying);

    EXPECT_FALSE(collector.cancel());

    EXPECT_EQ(128 + SIGTERM, first.call.get());
    EXPECT_EQ(128 + SIGTERM, last.call.get());
    EXPECT_EQ(-1, refusing.end());
}

TEST_F(CollectorCancelTest, RefusalCountsAfterACancelledCollectionToo) {
    Collector collector(installed.installDirectory());
    installed.setRunnable(false);
    RefusingRun refusing(installed, collector);
    WatchedCall<int> collection([&] { return collector.startCollection(kOptionFile, messenger); });
    ASSERT_TRUE(channels.feedback.waitFor("\n"));

    EXPECT_FALSE(withinDeadline([&] { return collector.cancel(); }));

    EXPECT_EQ(0, collection.get());
    EXPECT_EQ(-1, refusing.end());
}

TEST_F(CollectorCancelTest, CollectionThatCannotBeAskedIsEnded) {
    installed.replaceBy("#!/bin/sh\necho ready\nexec sleep 1000\n");
    Collector collector(installed.installDirectory());
    WatchedCall<int> collection([&] {
        return collector.startCollection(installed.entry("result/config/options"), messenger);
    });
    ASSERT_TRUE(channels.out.waitFor("ready"));
    installed.setRunnable(false);

    EXPECT_TRUE(withinDeadline([&] { return collector.cancel(); }));

    EXPECT_EQ(128 + SIGTERM, collection.get());
}

TEST_F(CollectorCancelTest, DestructionWithNothingRunningStartsNothing) {
    { const Collector collector(installed.installDirectory()); }

    EXPECT_EQ(std::vector<Arguments>{}, installed.runs());
}

TEST_F(CollectorCancelTest, DestructionCancelsTheCollectionThatIsOnRecord) {
    {
        StagedCollector collector(installed.installDirectory(),
                                  [](const Arguments&, OperationMessenger&) -> int {
                                      throw std::runtime_error("ended");
                                  });
        ASSERT_EQ("ended",
                  errorOf([&] { (void)collector.startCollection(kOptionFile, messenger); }));
    }

    EXPECT_EQ((std::vector<Arguments>{withFeedbackOptions(kCancelRun)}), installed.runs());
    EXPECT_EQ("", channels.out.text() + channels.err.text() + channels.feedback.text());
}

TEST_F(StagedCancelTest, SendsTheCancelCommandWithAnEmptyMessengerAndIgnoresItsCode) {
    bool empty = false;
    onCommand = [&](const Arguments&, OperationMessenger& given) {
        empty = !given.onFeedback && !given.onStdout && !given.onStderr;
        collectionMayEnd.open();
        return 9;
    };
    WatchedCall<int> collection([&] { return start(); });
    collectionBegun.wait();

    EXPECT_TRUE(withinDeadline([&] { return collector.cancel(); }));

    EXPECT_EQ(5, collection.get());
    EXPECT_TRUE(empty);
    EXPECT_EQ((std::vector<Arguments>{{"--option-file", kOptionFile}, kCancelRun}),
              collector.runs());
}

TEST_F(StagedCancelTest, WaitsForTheCollectionHoweverLongItTakes) {
    WatchedCall<int> collection([&] { return start(); });
    collectionBegun.wait();
    WatchedCall<bool> cancel([&] { return collector.cancel(); });
    cancelSent.wait();

    EXPECT_TRUE(cancel.isHeldBack());

    collectionMayEnd.open();
    EXPECT_TRUE(cancel.get());
    EXPECT_EQ(5, collection.get());
}

TEST_F(StagedCancelTest, HoldsBackStartsCommandsAndOtherCancels) {
    WatchedCall<int> collection([&] { return start(); });
    collectionBegun.wait();
    WatchedCall<bool> cancel([&] { return collector.cancel(); });
    cancelSent.wait();

    WatchedCall<std::string> otherStart([&] { return errorOf([&] { (void)start(); }); });
    WatchedCall<std::string> command(
        [&] { return errorOf([&] { (void)collector.sendCollectionCommand("mark", messenger); }); });
    WatchedCall<Outcome> otherCancel([&] { return outcomeOf(collector); });
    EXPECT_TRUE(otherStart.isHeldBack());
    EXPECT_TRUE(command.isHeldBack());
    EXPECT_TRUE(otherCancel.isHeldBack());
    EXPECT_EQ(2U, collector.runs().size());

    collectionMayEnd.open();
    EXPECT_TRUE(cancel.get());
    EXPECT_EQ(5, collection.get());
    // Who of them comes first after the cancel is open; each ends in one of its own ways.
    const std::string startOutcome = otherStart.get();
    const std::string commandOutcome = command.get();
    const Outcome cancelOutcome = otherCancel.get();
    EXPECT_TRUE(startOutcome == kAlreadyRunning || startOutcome == "no error was thrown");
    EXPECT_TRUE(commandOutcome == kNotRunning || commandOutcome == "no error was thrown");
    EXPECT_TRUE(cancelOutcome == Outcome::True || cancelOutcome == Outcome::AlreadyRetrieved);
}

TEST_F(StagedCancelTest, ExceptionOfTheCancelCommandPassesAndHoldsNothingBack) {
    WatchedCall<int> collection([&] { return start(); });
    collectionBegun.wait();
    onCommand = [](const Arguments&, OperationMessenger&) -> int {
        throw std::runtime_error("no memory");
    };

    EXPECT_EQ("no memory", errorOf([&] { (void)collector.cancel(); }));

    onCommand = [this](const Arguments&, OperationMessenger&) {
        collectionMayEnd.open();
        return 0;
    };
    EXPECT_TRUE(withinDeadline([&] { return collector.cancel(); }));
    EXPECT_EQ(5, collection.get());
}

TEST_F(StagedCancelTest, CollectionThatEndedByAnExceptionDoesNotHoldUpACancel) {
    StagedCollector throwing(directory.entry("target"),
                             [](const Arguments& arguments, OperationMessenger&) -> int {
                                 if (isCollection(arguments)) {
                                     throw std::runtime_error("ended");
                                 }
                                 return 0;
                             });
    ASSERT_EQ("ended", errorOf([&] { (void)throwing.startCollection(kOptionFile, messenger); }));

    EXPECT_EQ(Outcome::True, withinDeadline([&] { return outcomeOf(throwing); }));

    EXPECT_EQ(kCancelRun, throwing.runs().back());
}

TEST_F(StagedCancelTest, SecondWaiterOnOneCollectionIsTold) {
    StagedCollector throwing(directory.entry("target"),
                             [](const Arguments& arguments, OperationMessenger&) -> int {
                                 if (isCollection(arguments)) {
                                     throw std::runtime_error("ended");
                                 }
                                 return 0;
                             });
    ASSERT_EQ("ended", errorOf([&] { (void)throwing.startCollection(kOptionFile, messenger); }));
    (void)withinDeadline([&] { return outcomeOf(throwing); });

    EXPECT_EQ(Outcome::AlreadyRetrieved, withinDeadline([&] { return outcomeOf(throwing); }));

    // The lock was released on the way, and the destructor lets no exception out.
    EXPECT_EQ(kAlreadyRunning,
              errorOf([&] { (void)throwing.startCollection(kOptionFile, messenger); }));
}

TEST_F(StagedCancelTest, CancelThatWaitsEndsWhenTheCollectionThrows) {
    StagedCollector throwing(directory.entry("target"),
                             [this](const Arguments& arguments, OperationMessenger&) -> int {
                                 if (isCollection(arguments)) {
                                     collectionBegun.open();
                                     collectionMayEnd.wait();
                                     throw std::runtime_error("ended");
                                 }
                                 cancelSent.open();
                                 return 0;
                             });
    WatchedCall<std::string> collection(
        [&] { return errorOf([&] { (void)throwing.startCollection(kOptionFile, messenger); }); });
    collectionBegun.wait();
    WatchedCall<Outcome> cancel([&] { return outcomeOf(throwing); });
    cancelSent.wait();
    EXPECT_TRUE(cancel.isHeldBack());

    collectionMayEnd.open();

    EXPECT_EQ("ended", collection.get());
    EXPECT_EQ(Outcome::True, cancel.get());
}

TEST_F(StagedCancelTest, ManyCollectionsCancelledAtTheirEndNeverHang) {
    constexpr int kRounds = 300;
    for (int round = 0; round < kRounds; ++round) {
        Gate begun;
        std::promise<void> asked;
        std::atomic<bool> first{true};
        const std::shared_future<void> mayEnd = asked.get_future().share();
        StagedCollector racing(directory.entry("target"),
                               [&](const Arguments& arguments, OperationMessenger&) {
                                   if (isCollection(arguments)) {
                                       begun.open();
                                       mayEnd.wait();
                                   } else if (first.exchange(false)) {
                                       asked.set_value();
                                   }
                                   return 1;
                               });
        WatchedCall<int> collection([&] { return racing.startCollection(kOptionFile, messenger); });
        begun.wait();
        WatchedCall<Outcome> one([&] { return outcomeOf(racing); });
        WatchedCall<Outcome> other([&] { return outcomeOf(racing); });

        for (WatchedCall<Outcome>* const call : {&one, &other}) {
            const Outcome outcome = call->get();
            ASSERT_TRUE(outcome == Outcome::True || outcome == Outcome::AlreadyRetrieved);
        }
        ASSERT_EQ(1, collection.get());
        ASSERT_EQ(kNotRunning,
                  errorOf([&] { (void)racing.sendCollectionCommand("stop", messenger); }));
    }
}

}  // namespace kolvan::test
