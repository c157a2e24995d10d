#include "agent/OperationProgressAggregator.h"

#include "server/MessageJson.h"
#include "tests/agent/AgentWithFakes.h"
#include "tests/agent/LargeAllocations.h"
#include "tests/agent/SleepShim.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/Gate.h"
#include "tests/support/ThreadShortage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace cagnt1 {
namespace {

using kolvan::test::AgentWithFakes;
using kolvan::test::BackgroundCall;
using kolvan::test::FakeServer;
using kolvan::test::Gate;
using kolvan::test::kLargeAllocationBytes;
using kolvan::test::liveLargeAllocations;
using kolvan::test::outputText;
using kolvan::test::SleepShim;
using kolvan::test::ThreadShortage;
using testing::ElementsAre;
using testing::IsEmpty;

using Aggregator = Agent::OperationProgressAggregator;

/// A connected agent and one aggregator on it, which is closed at the end as its owner has to.
class OperationProgressAggregatorTest : public testing::Test {
protected:
    OperationProgressAggregatorTest() {
        scene.startPolling();
        aggregator = make(OutputChannel::Stdout, "7");
    }

    ~OperationProgressAggregatorTest() override {
        scene.server->end();
        aggregator->close();
    }

    std::shared_ptr<Aggregator> make(OutputChannel channel, const std::string& id) {
        return std::make_shared<Aggregator>(channel, *scene.agent, id);
    }

    /// Texts of the output messages that were sent, in order.
    std::vector<std::string> sentTexts() {
        std::vector<std::string> texts;
        for (const FakeServer::Request& request : scene.server->requests("collector:stdout")) {
            texts.push_back(outputText(request.message));
        }
        return texts;
    }

    /// Sends a text and waits until it is in flight, where it is held.
    void holdInFlight(const std::string& text) {
        scene.server->hold("collector:stdout");
        const std::size_t sent = scene.server->count("collector:stdout");
        aggregator->send(text);
        scene.server->waitForRequest("collector:stdout", sent + 1);
    }

    AgentWithFakes scene;
    std::shared_ptr<Aggregator> aggregator;
};

// What is sent.

TEST_F(OperationProgressAggregatorTest, TextLeavesByItselfAsOneMessage) {
    aggregator->send("hello\n");

    EXPECT_EQ(scene.withIdentity({{"id", "7"}, {"size", "6"}, {"message", "aGVsbG8K"}}),
              scene.server->waitForRequest("collector:stdout").message.parameters);
    aggregator->finish();
    EXPECT_EQ(1U, scene.server->count("collector:stdout"));
}

TEST_F(OperationProgressAggregatorTest, EachChannelHasItsMessageType) {
    const std::vector<std::pair<OutputChannel, std::string>> types = {
        {OutputChannel::Feedback, "collector:feedback"},
        {OutputChannel::Stdout, "collector:stdout"},
        {OutputChannel::Stderr, "collector:stderr"},
        {static_cast<OutputChannel>(3), ""}};

    for (const auto& [channel, type] : types) {
        const auto each = make(channel, "id");
        each->send("text");
        each->finish();
        each->close();

        EXPECT_EQ("text", outputText(scene.server->waitForRequest(type).message)) << type;
    }
}

TEST_F(OperationProgressAggregatorTest, ChannelsAreNumberedAsTheServerKnowsThem) {
    EXPECT_EQ(0, static_cast<int>(OutputChannel::Feedback));
    EXPECT_EQ(1, static_cast<int>(OutputChannel::Stdout));
    EXPECT_EQ(2, static_cast<int>(OutputChannel::Stderr));
}

TEST_F(OperationProgressAggregatorTest, BytesOfAnyKindPassUnchangedAndAreCounted) {
    std::string bytes;
    for (int value = 0; value < 256; ++value) {
        bytes.push_back(static_cast<char>(value));
    }
    bytes += "\xc3\x28 no UTF-8 \xff";

    aggregator->send(bytes);
    aggregator->finish();

    const Message message = scene.server->waitForRequest("collector:stdout").message;
    EXPECT_EQ(bytes, outputText(message));
    EXPECT_EQ(std::to_string(bytes.size()), message.parameter("size"));
}

TEST_F(OperationProgressAggregatorTest, ALongTextIsOneMessage) {
    const std::string text(3 * 1024 * 1024 + 1, 'z');

    aggregator->send(text);
    aggregator->finish();

    const Message message = scene.server->waitForRequest("collector:stdout").message;
    EXPECT_EQ("3145729", message.parameter("size"));
    EXPECT_TRUE(text == outputText(message));
    EXPECT_EQ(1U, scene.server->count("collector:stdout"));
}

TEST_F(OperationProgressAggregatorTest, EmptyTextIsNoMessage) {
    aggregator->send("");
    aggregator->finish();

    EXPECT_THAT(sentTexts(), IsEmpty());
}

TEST_F(OperationProgressAggregatorTest, ReplyIsHandledLikeAnyOther) {
    scene.server->answer("collector:stdout", {kolvan::test::serverError("noted")});

    aggregator->send("text");

    EXPECT_THAT(scene.operations->waitForCall("onError").arguments, ElementsAre("noted"));
}

// Gathering.

TEST_F(OperationProgressAggregatorTest, TextsWithinTheDelayOf20MillisecondsAreOneMessage) {
    SleepShim sleep;

    aggregator->send("one, ");
    sleep.waitForSleep(1);
    aggregator->send("two");
    EXPECT_THAT(sentTexts(), IsEmpty());
    sleep.endSleeps();
    scene.server->waitForRequest("collector:stdout");
    sleep.holdNoLonger();
    aggregator->finish();

    EXPECT_THAT(sentTexts(), ElementsAre("one, two"));
    EXPECT_EQ("8", scene.server->waitForRequest("collector:stdout").message.parameter("size"));
    EXPECT_THAT(sleep.durations(), ElementsAre(std::chrono::milliseconds(20)));
}

TEST_F(OperationProgressAggregatorTest, TextAppendedDuringASendIsGatheredForADelayOfItsOwn) {
    SleepShim sleep;
    scene.server->hold("collector:stdout");
    aggregator->send("first");
    sleep.waitForSleep(1);
    sleep.endSleeps();
    scene.server->waitForRequest("collector:stdout");
    aggregator->send("second, ");

    scene.server->release("collector:stdout");
    sleep.waitForSleep(2);
    aggregator->send("third");
    EXPECT_EQ(1U, scene.server->count("collector:stdout"));
    sleep.endSleeps();

    EXPECT_EQ("second, third",
              outputText(scene.server->waitForRequest("collector:stdout", 2).message));
    sleep.holdNoLonger();
    aggregator->finish();
    EXPECT_THAT(sleep.durations(),
                ElementsAre(std::chrono::milliseconds(20), std::chrono::milliseconds(20)));
}

TEST_F(OperationProgressAggregatorTest, ADelayThatASignalCutsShortIsSleptToItsEnd) {
    SleepShim sleep;
    aggregator->send("text");
    sleep.waitForSleep(1);

    sleep.interruptSleeps(std::chrono::milliseconds(13));
    sleep.waitForSleep(2);

    EXPECT_THAT(sentTexts(), IsEmpty());
    sleep.holdNoLonger();
    aggregator->finish();
    EXPECT_THAT(sentTexts(), ElementsAre("text"));
    EXPECT_THAT(sleep.durations(),
                ElementsAre(std::chrono::milliseconds(20), std::chrono::milliseconds(13)));
}

TEST_F(OperationProgressAggregatorTest, EveryMessageHasADelayBeforeIt) {
    SleepShim sleep;
    sleep.holdNoLonger();

    for (int i = 0; i < 2000; ++i) {
        aggregator->send("x");
        std::this_thread::yield();
    }
    aggregator->finish();

    EXPECT_LE(sentTexts().size(), sleep.durations().size());
}

TEST_F(OperationProgressAggregatorTest, TextsOfOneGatheringAreOneMessageInTheirOrder) {
    holdInFlight("first");

    aggregator->send("se");
    aggregator->send("co");
    aggregator->send("nd");
    EXPECT_EQ(1U, scene.server->count("collector:stdout"));
    scene.server->release("collector:stdout");
    aggregator->finish();

    EXPECT_THAT(sentTexts(), ElementsAre("first", "second"));
    EXPECT_EQ("6", scene.server->waitForRequest("collector:stdout", 2).message.parameter("size"));
}

TEST_F(OperationProgressAggregatorTest, TextAppendedDuringASendLeavesWithoutAnyFurtherCall) {
    holdInFlight("first");
    aggregator->send("second");

    scene.server->release("collector:stdout");

    EXPECT_EQ("second", outputText(scene.server->waitForRequest("collector:stdout", 2).message));
}

TEST_F(OperationProgressAggregatorTest, TextAppendedDuringEachOfManySendsLeavesByItself) {
    holdInFlight("0");

    for (std::size_t i = 1; i <= 20; ++i) {
        aggregator->send(std::to_string(i));
        scene.server->answer("collector:stdout", kolvan::test::Messages());
        EXPECT_EQ(std::to_string(i),
                  outputText(scene.server->waitForRequest("collector:stdout", i + 1).message));
    }
    scene.server->release("collector:stdout");
}

TEST_F(OperationProgressAggregatorTest, TextAfterAQuietPeriodLeavesByItselfAgain) {
    for (std::size_t i = 1; i <= 5; ++i) {
        aggregator->send("again");
        scene.server->waitForRequest("collector:stdout", i);
    }
    aggregator->finish();

    EXPECT_EQ("againagainagainagainagain", [&] {
        std::string all;
        for (const std::string& text : sentTexts()) {
            all += text;
        }
        return all;
    }());
}

TEST_F(OperationProgressAggregatorTest, MemoryOfALargeTextIsGivenBackWhenNothingMoreComes) {
    const long before = liveLargeAllocations();
    const std::string large(8 * kLargeAllocationBytes, 'k');
    EXPECT_EQ(before + 1, liveLargeAllocations());
    // The second one is gathered while the first is in flight, and gets memory of its own.
    holdInFlight(large);
    aggregator->send(large);
    scene.server->release("collector:stdout");

    aggregator->finish();

    EXPECT_THAT(sentTexts(), ElementsAre(large, large));
    scene.server->forgetRequests();
    EXPECT_EQ(before + 1, liveLargeAllocations());
}

TEST_F(OperationProgressAggregatorTest, WritersAreNotHeldUpByASend) {
    holdInFlight("first");

    for (int i = 0; i < 1000; ++i) {
        aggregator->send("x");
    }

    EXPECT_EQ(1U, scene.server->count("collector:stdout"));
    scene.server->release("collector:stdout");
    aggregator->finish();
    EXPECT_THAT(sentTexts(), ElementsAre("first", std::string(1000, 'x')));
}

TEST_F(OperationProgressAggregatorTest, ChannelsDoNotWaitForEachOther) {
    const auto other = make(OutputChannel::Stderr, "7");
    holdInFlight("held");

    other->send("free");

    EXPECT_EQ("free", outputText(scene.server->waitForRequest("collector:stderr").message));
    scene.server->release("collector:stdout");
    other->close();
}

TEST_F(OperationProgressAggregatorTest, AtMostOneMessageIsInFlightAndTheOrderOfTheTextIsKept) {
    std::atomic<int> inFlight{0};
    std::atomic<int> mostInFlight{0};
    scene.server->answerEvery("collector:stdout", [&](const FakeServer::Request&) {
        mostInFlight = std::max(mostInFlight.load(), ++inFlight);
        for (int i = 0; i < 100; ++i) {
            std::this_thread::yield();
        }
        --inFlight;
        return std::string();
    });

    std::string expected;
    for (int i = 0; i < 4000; ++i) {
        const std::string piece = std::to_string(i) + "\n";
        expected += piece;
        aggregator->send(piece);
        std::this_thread::yield();
    }
    aggregator->finish();

    std::string all;
    for (const std::string& text : sentTexts()) {
        all += text;
    }
    EXPECT_TRUE(expected == all);
    EXPECT_EQ(1, mostInFlight);
}

// Failures.

TEST_F(OperationProgressAggregatorTest, TextOfASendThatBreaksOffIsLostAndLaterTextLeaves) {
    scene.server->fail("collector:stdout", "Connection reset by peer");
    aggregator->send("lost");
    scene.server->waitForRequest("collector:stdout");
    EXPECT_NO_THROW(aggregator->finish());

    aggregator->send("later");

    EXPECT_EQ("later", outputText(scene.server->waitForRequest("collector:stdout", 2).message));
    EXPECT_NO_THROW(aggregator->finish());
    EXPECT_THAT(sentTexts(), ElementsAre("lost", "later"));
}

TEST_F(OperationProgressAggregatorTest, TextAppendedDuringASendThatBreaksOffIsSentAtTheEnd) {
    holdInFlight("lost");
    aggregator->send("kept");

    scene.server->fail("collector:stdout", "Connection reset by peer");
    scene.server->release("collector:stdout");
    EXPECT_NO_THROW(aggregator->finish());

    EXPECT_THAT(sentTexts(), ElementsAre("lost", "kept"));
}

TEST_F(OperationProgressAggregatorTest, TextThatFindsNoThreadGoesWithTheNextOne) {
    ThreadShortage shortage;

    shortage.begin();
    EXPECT_NO_THROW(aggregator->send("first, "));
    EXPECT_NO_THROW(aggregator->send("second, "));
    shortage.end();
    EXPECT_THAT(sentTexts(), IsEmpty());
    aggregator->send("third");

    EXPECT_EQ("first, second, third",
              outputText(scene.server->waitForRequest("collector:stdout").message));
}

TEST_F(OperationProgressAggregatorTest, TextThatFindsNoThreadIsSentByFinishOnItsCallersThread) {
    ThreadShortage shortage;

    shortage.begin();
    aggregator->send("text");
    aggregator->finish();
    shortage.end();

    const FakeServer::Request request = scene.server->waitForRequest("collector:stdout");
    EXPECT_EQ("text", outputText(request.message));
    EXPECT_EQ(std::this_thread::get_id(), request.thread);
}

// flush() and finish().

TEST_F(OperationProgressAggregatorTest, FlushSendsAtOnceOnItsCallersThread) {
    ThreadShortage shortage;
    shortage.begin();
    aggregator->send("now");
    shortage.end();

    aggregator->flush();

    const std::vector<FakeServer::Request> requests = scene.server->requests("collector:stdout");
    ASSERT_EQ(1U, requests.size());
    EXPECT_EQ(scene.withIdentity({{"id", "7"}, {"size", "3"}, {"message", "bm93"}}),
              requests.front().message.parameters);
    EXPECT_EQ(std::this_thread::get_id(), requests.front().thread);
    aggregator->finish();
    EXPECT_EQ(1U, scene.server->count("collector:stdout"));
}

TEST_F(OperationProgressAggregatorTest, FlushThrowsWhatTheTransportThrowsAndTheTextIsLost) {
    ThreadShortage shortage;
    shortage.begin();
    aggregator->send("lost");
    shortage.end();
    scene.server->fail("collector:stdout", "Connection refused");

    std::string text;
    try {
        aggregator->flush();
    } catch (const std::runtime_error& error) {
        text = error.what();
    }

    EXPECT_EQ("Connection refused", text);
    aggregator->finish();
    EXPECT_THAT(sentTexts(), ElementsAre("lost"));
}

TEST_F(OperationProgressAggregatorTest, FinishThrowsWhatItsOwnFlushThrows) {
    ThreadShortage shortage;
    shortage.begin();
    aggregator->send("lost");
    shortage.end();
    scene.server->fail("collector:stdout", "Connection refused");

    EXPECT_THROW(aggregator->finish(), std::runtime_error);
    EXPECT_NO_THROW(aggregator->finish());
}

TEST_F(OperationProgressAggregatorTest, FinishWithoutTextSendsNothing) {
    aggregator->finish();

    EXPECT_THAT(sentTexts(), IsEmpty());
}

TEST_F(OperationProgressAggregatorTest, FinishReturnsAfterTheAnswerToTheLastText) {
    std::atomic<bool> finished{false};
    bool finishedBeforeAnswer = true;
    holdInFlight("first");
    aggregator->send("second");

    auto finishing = std::async(std::launch::async, [&] {
        aggregator->finish();
        finished = true;
    });
    scene.server->answer("collector:stdout", kolvan::test::Messages());
    scene.server->waitForRequest("collector:stdout", 2);
    scene.server->answer("collector:stdout", [&](const FakeServer::Request&) {
        finishedBeforeAnswer = finished;
        return std::string();
    });
    finishing.get();

    EXPECT_FALSE(finishedBeforeAnswer);
    EXPECT_THAT(sentTexts(), ElementsAre("first", "second"));
}

// abandon() and close().

TEST_F(OperationProgressAggregatorTest, AbandonDropsWhatIsNotInFlightWithoutWaiting) {
    holdInFlight("sent");
    aggregator->send("left in the buffer");

    aggregator->abandon();
    aggregator->send("too late");
    scene.server->release("collector:stdout");
    aggregator->close();

    EXPECT_THAT(sentTexts(), ElementsAre("sent"));
}

TEST_F(OperationProgressAggregatorTest, AbandonLeavesAScheduledSendAlone) {
    SleepShim sleep;
    aggregator->send("scheduled");
    sleep.waitForSleep(1);

    aggregator->abandon();
    aggregator->send(", too late");
    sleep.holdNoLonger();
    aggregator->close();

    EXPECT_THAT(sentTexts(), ElementsAre("scheduled"));
}

TEST_F(OperationProgressAggregatorTest, CloseWaitsForTheSendThatIsUnderWay) {
    std::atomic<bool> closed{false};
    bool closedBeforeAnswer = true;
    holdInFlight("sent");

    auto closing = std::async(std::launch::async, [&] {
        aggregator->close();
        closed = true;
    });
    scene.server->answer("collector:stdout", [&](const FakeServer::Request&) {
        closedBeforeAnswer = closed;
        return std::string();
    });
    closing.get();

    EXPECT_FALSE(closedBeforeAnswer);
}

TEST_F(OperationProgressAggregatorTest, CloseWaitsForAScheduledSend) {
    SleepShim sleep;
    aggregator->send("scheduled");
    sleep.waitForSleep(1);

    auto closing = std::async(std::launch::async, [&] { aggregator->close(); });
    sleep.holdNoLonger();
    closing.get();

    EXPECT_THAT(sentTexts(), ElementsAre("scheduled"));
}

TEST_F(OperationProgressAggregatorTest, TextAfterCloseIsDropped) {
    aggregator->send("in time");
    aggregator->close();

    aggregator->send("too late");
    aggregator->finish();
    aggregator->close();

    EXPECT_THAT(sentTexts(), ElementsAre("in time"));
}

TEST_F(OperationProgressAggregatorTest, CloseOfAnUnusedAggregatorReturns) {
    aggregator->close();

    EXPECT_THAT(sentTexts(), IsEmpty());
}

// Races.

/// Runs `work(id)` many times with an id of its own each, on many threads.
void repeatOnManyThreads(const std::function<void(const std::string&)>& work) {
    constexpr int kThreads = 40;
    constexpr int kRepeats = 50;
    std::vector<std::future<void>> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.push_back(std::async(std::launch::async, [&work, thread] {
            for (int i = 0; i < kRepeats; ++i) {
                work(std::to_string(thread) + ":" + std::to_string(i));
            }
        }));
    }
    for (std::future<void>& thread : threads) {
        thread.get();
    }
}

/// Texts that were sent for each operation, put together.
std::map<std::string, std::string> textsById(FakeServer& server) {
    std::map<std::string, std::string> texts;
    for (const FakeServer::Request& request : server.requests("collector:stdout")) {
        texts[request.message.parameter("id")] += outputText(request.message);
    }
    return texts;
}

TEST_F(OperationProgressAggregatorTest, NoTextIsLostOrDoubledWhateverTheMomentOfWriting) {
    std::mutex mutex;
    std::map<std::string, std::string> expected;

    repeatOnManyThreads([&](const std::string& id) {
        const auto each = make(OutputChannel::Stdout, id);
        std::string text;
        for (int i = 0; i < 5; ++i) {
            each->send(std::to_string(i));
            text += std::to_string(i);
            for (int wait = 0; wait < i * 5; ++wait) {
                std::this_thread::yield();
            }
        }
        each->finish();
        each->close();
        const std::lock_guard lock(mutex);
        expected[id] = text;
    });

    EXPECT_EQ(expected, textsById(*scene.server));
}

TEST_F(OperationProgressAggregatorTest, TextAppendedAtTheMomentOfAnAnswerLeavesByItself) {
    std::mutex mutex;
    std::map<std::string, std::shared_ptr<std::promise<void>>> answered;
    std::map<std::string, std::shared_ptr<std::promise<void>>> secondSent;
    const auto take = [&](auto& promises, const std::string& id) {
        const std::lock_guard lock(mutex);
        std::shared_ptr<std::promise<void>> found;
        found.swap(promises[id]);
        return found;
    };
    scene.server->answerEvery("collector:stdout", [&](const FakeServer::Request& request) {
        const std::string id = request.message.parameter("id");
        if (const auto first = take(answered, id)) {
            first->set_value();
        } else if (const auto second = take(secondSent, id)) {
            second->set_value();
        }
        return std::string();
    });

    repeatOnManyThreads([&](const std::string& id) {
        const auto each = make(OutputChannel::Stdout, id);
        std::future<void> first;
        std::future<void> second;
        {
            const std::lock_guard lock(mutex);
            answered[id] = std::make_shared<std::promise<void>>();
            first = answered[id]->get_future();
            secondSent[id] = std::make_shared<std::promise<void>>();
            second = secondSent[id]->get_future();
        }
        each->send("a");
        first.wait();
        each->send("b");
        if (second.wait_for(kolvan::test::kDeadline) != std::future_status::ready) {
            ADD_FAILURE() << "a text was left behind";
        }
        each->close();
    });

    for (const auto& [id, text] : textsById(*scene.server)) {
        ASSERT_EQ("ab", text) << id;
    }
}

TEST_F(OperationProgressAggregatorTest, DelayedSendEndsSilentlyWhenItsAggregatorIsGone) {
    SleepShim sleep;
    auto each = make(OutputChannel::Stdout, "id");
    each->send("text");
    sleep.waitForSleep(1);

    // The end of the aggregator waits for the thread that has nothing to send to any more.
    BackgroundCall end([each = std::move(each)]() mutable { each.reset(); });
    EXPECT_TRUE(end.isBlocked());
    sleep.endSleeps();
    end.get();

    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "commands:get"));
    EXPECT_EQ(1U, sleep.durations().size());
}

TEST_F(OperationProgressAggregatorTest, AbandonedAggregatorsSendAtMostWhatWasWritten) {
    repeatOnManyThreads([&](const std::string& id) {
        const auto each = make(OutputChannel::Stdout, id);
        each->send("a");
        each->abandon();
        each->send("b");
        each->close();
    });

    const std::map<std::string, std::string> texts = textsById(*scene.server);
    EXPECT_EQ(2000U, texts.size());
    for (const auto& [id, text] : texts) {
        ASSERT_EQ("a", text) << id;
    }
}

}  // namespace
}  // namespace cagnt1
