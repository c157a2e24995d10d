#include "agent/Agent.h"
#include "server/MessageJson.h"
#include "tests/agent/AgentWithFakes.h"
#include "tests/agent/LargeAllocations.h"
#include "tests/agent/SleepShim.h"
#include "tests/support/CapturedStream.h"
#include "tests/support/Gate.h"
#include "tests/support/ThreadShortage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

namespace cagnt1 {
namespace {

using kolvan::test::AgentWithFakes;
using kolvan::test::CapturedStream;
using kolvan::test::execute;
using kolvan::test::FakeServer;
using kolvan::test::Gate;
using kolvan::test::Messages;
using kolvan::test::outputText;
using kolvan::test::SleepShim;
using kolvan::test::startCollection;
using kolvan::test::ThreadShortage;
using testing::Contains;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

using OperationMessenger = IAgent::IOperations::OperationMessenger;

/// Starts the operation "1" with this body.
void runOperation(AgentWithFakes& scene, kolvan::test::FakeOperations::Body body) {
    scene.operations->bodies["go"] = std::move(body);
    scene.startPolling();
    scene.deliver({execute("1", "go")});
}

/// Types of what operations have sent, in the order of arrival.
std::vector<std::string> operationTypes(AgentWithFakes& scene) {
    std::vector<std::string> types;
    for (const std::string& type : scene.server->types()) {
        if (type.rfind("collector:", 0) == 0) {
            types.push_back(type);
        }
    }
    return types;
}

// A server that waits for the end of what it has launched would wait for ever.
TEST(OperationTaskTest, AnOperationWithoutMemoryForItsChannelsIsToldOfAsFailed) {
    const std::string longId(kolvan::test::kLargeAllocationBytes, 'i');
    AgentWithFakes scene;
    scene.startPolling();

    const kolvan::test::NoMemoryOnceOnANewThread shortage(longId.size());
    scene.deliver({execute(longId, "go")});

    EXPECT_EQ(scene.withIdentity({{"id", longId}, {"errorMessage", "std::bad_alloc"}}),
              scene.server->waitForRequest("collector:finish").message.parameters);
    EXPECT_TRUE(shortage.wasAsked());
}

// The normal end.

TEST(OperationTaskTest, AnOperationThatWritesNothingSendsItsFinishOnly) {
    AgentWithFakes scene;

    runOperation(scene, [](auto&) { return 0; });

    EXPECT_EQ(scene.withIdentity({{"id", "1"}, {"code", "0"}}),
              scene.server->waitForRequest("collector:finish").message.parameters);
    EXPECT_THAT(operationTypes(scene), ElementsAre("collector:finish"));
}

TEST(OperationTaskTest, TheCodeIsASignedDecimalNumber) {
    const std::vector<std::pair<int, std::string>> codes = {
        {1, "1"},
        {-1, "-1"},
        {143, "143"},
        {std::numeric_limits<int>::max(), "2147483647"},
        {std::numeric_limits<int>::min(), "-2147483648"}};
    AgentWithFakes scene;
    for (const auto& [code, text] : codes) {
        scene.operations->bodies[text] = [result = code](auto&) { return result; };
    }
    scene.startPolling();

    for (std::size_t i = 0; i < codes.size(); ++i) {
        scene.deliver({execute("id", codes[i].second)});

        EXPECT_EQ(scene.withIdentity({{"id", "id"}, {"code", codes[i].second}}),
                  scene.server->waitForRequest("collector:finish", i + 1).message.parameters);
    }
}

TEST(OperationTaskTest, EveryKindOfOperationFinishesWithItsOwnIdAndCode) {
    AgentWithFakes scene;
    scene.operations->bodies["run"] = [](auto&) { return 1; };
    scene.operations->bodies["collect"] = [](auto&) { return 2; };
    scene.operations->bodies["command"] = [](auto&) { return 3; };
    scene.startPolling();

    scene.deliver({execute("a", "run"), startCollection("b \"c\"", "collect", ""),
                   kolvan::test::collectionCommand("\xff", "command")});
    scene.server->waitForRequest("collector:finish", 3);

    std::vector<std::pair<std::string, std::string>> results;
    for (const FakeServer::Request& finish : scene.server->requests("collector:finish")) {
        results.emplace_back(finish.message.parameter("id"), finish.message.parameter("code"));
    }
    EXPECT_THAT(results, UnorderedElementsAre(std::pair<std::string, std::string>("a", "1"),
                                              std::pair<std::string, std::string>("b \"c\"", "2"),
                                              std::pair<std::string, std::string>("\xff", "3")));
}

TEST(OperationTaskTest, OutputOfAllChannelsRightBeforeTheEndPrecedesTheFinish) {
    AgentWithFakes scene;

    runOperation(scene, [](OperationMessenger& messenger) {
        messenger.onFeedback("<progress/>");
        messenger.onStdout("out\n");
        messenger.onStderr("err\n");
        return 5;
    });
    scene.server->waitForRequest("collector:finish");

    const std::vector<std::string> types = operationTypes(scene);
    ASSERT_EQ(4U, types.size());
    EXPECT_EQ("collector:finish", types.back());
    const auto parametersOf = [&](const std::string& type) {
        return scene.server->waitForRequest(type).message.parameters;
    };
    EXPECT_EQ(scene.withIdentity({{"id", "1"}, {"size", "11"}, {"message", "PHByb2dyZXNzLz4="}}),
              parametersOf("collector:feedback"));
    EXPECT_EQ(scene.withIdentity({{"id", "1"}, {"size", "4"}, {"message", "b3V0Cg=="}}),
              parametersOf("collector:stdout"));
    EXPECT_EQ(scene.withIdentity({{"id", "1"}, {"size", "4"}, {"message", "ZXJyCg=="}}),
              parametersOf("collector:stderr"));
    EXPECT_EQ(scene.withIdentity({{"id", "1"}, {"code", "5"}}), parametersOf("collector:finish"));
}

TEST(OperationTaskTest, TheFinishWaitsUntilTheOutputHasBeenAnswered) {
    AgentWithFakes scene;
    std::size_t finishesBefore = 1;
    scene.server->hold("collector:stderr");

    runOperation(scene, [](OperationMessenger& messenger) {
        messenger.onStderr("text");
        return 0;
    });
    scene.server->waitForRequest("collector:stderr");
    scene.server->answer("collector:stderr", [&](const FakeServer::Request&) {
        finishesBefore = scene.server->count("collector:finish");
        return std::string();
    });
    scene.server->waitForRequest("collector:finish");

    EXPECT_EQ(0U, finishesBefore);
}

TEST(OperationTaskTest, TextWrittenDuringASendPrecedesTheFinishToo) {
    AgentWithFakes scene;
    scene.server->hold("collector:stdout");

    runOperation(scene, [&](OperationMessenger& messenger) {
        messenger.onStdout("first");
        scene.server->waitForRequest("collector:stdout");
        messenger.onStdout("second, ");
        messenger.onStdout("third");
        scene.server->release("collector:stdout");
        return 0;
    });
    scene.server->waitForRequest("collector:finish");

    EXPECT_THAT(operationTypes(scene),
                ElementsAre("collector:stdout", "collector:stdout", "collector:finish"));
    EXPECT_EQ("second, third",
              outputText(scene.server->waitForRequest("collector:stdout", 2).message));
}

TEST(OperationTaskTest, TextWrittenDuringASendAndFollowedBySilenceLeavesBeforeTheOperationEnds) {
    Gate mayEnd;
    AgentWithFakes scene;
    scene.server->hold("collector:feedback");

    runOperation(scene, [&](OperationMessenger& messenger) {
        messenger.onFeedback("first");
        scene.server->waitForRequest("collector:feedback");
        messenger.onFeedback("second");
        scene.server->release("collector:feedback");
        mayEnd.wait();
        return 0;
    });

    EXPECT_EQ("second", outputText(scene.server->waitForRequest("collector:feedback", 2).message));
    EXPECT_EQ(0U, scene.server->count("collector:finish"));
    mayEnd.open();
    scene.server->waitForRequest("collector:finish");
}

TEST(OperationTaskTest, OutputOfOperationsDoesNotMix) {
    AgentWithFakes scene;
    for (const std::string name : {"a", "b", "c"}) {
        scene.operations->bodies[name] = [name](OperationMessenger& messenger) {
            for (int i = 0; i < 100; ++i) {
                messenger.onStdout(name);
            }
            return 0;
        };
    }
    scene.startPolling();

    scene.deliver({execute("1", "a"), execute("2", "b"), execute("3", "c")});
    scene.server->waitForRequest("collector:finish", 3);

    std::unordered_map<std::string, std::string> texts;
    for (const FakeServer::Request& output : scene.server->requests("collector:stdout")) {
        texts[output.message.parameter("id")] += outputText(output.message);
    }
    const std::unordered_map<std::string, std::string> expected = {
        {"1", std::string(100, 'a')}, {"2", std::string(100, 'b')}, {"3", std::string(100, 'c')}};
    EXPECT_EQ(expected, texts);
}

TEST(OperationTaskTest, ReplyToTheFinishIsHandled) {
    AgentWithFakes scene;
    scene.server->answer("collector:finish", {kolvan::test::serverError("noted")});

    runOperation(scene, [](auto&) { return 0; });

    EXPECT_THAT(scene.operations->waitForCall("onError").arguments, ElementsAre("noted"));
}

// The failed operation.

TEST(OperationTaskTest, AFailedOperationFinishesWithItsErrorAndWithoutCode) {
    AgentWithFakes scene;

    runOperation(scene,
                 [](auto&) -> int { throw std::runtime_error("Collection is already running"); });

    EXPECT_EQ(scene.withIdentity({{"id", "1"}, {"errorMessage", "Collection is already running"}}),
              scene.server->waitForRequest("collector:finish").message.parameters);
    EXPECT_THAT(operationTypes(scene), ElementsAre("collector:finish"));
}

TEST(OperationTaskTest, AFailureIsNeitherPrintedNorReportedInAnyOtherWay) {
    const CapturedStream standardError(STDERR_FILENO);
    AgentWithFakes scene;

    runOperation(scene, [](auto&) -> int { throw std::logic_error(""); });
    scene.server->waitForRequest("collector:finish");
    scene.deliver({});
    scene.agent->disconnect();
    scene.awaitStopped();
    scene.destroyAgent();

    EXPECT_EQ(scene.withIdentity({{"id", "1"}, {"errorMessage", ""}}),
              scene.server->waitForRequest("collector:finish").message.parameters);
    EXPECT_EQ(1U, scene.server->count("collector:finish"));
    EXPECT_EQ(0U, scene.server->count("error"));
    EXPECT_EQ("", standardError.text());
}

TEST(OperationTaskTest, TextWrittenBeforeAFailureIsStillSent) {
    AgentWithFakes scene;

    runOperation(scene, [](OperationMessenger& messenger) -> int {
        messenger.onStdout("on the way");
        throw std::runtime_error("failed");
    });
    scene.server->waitForRequest("collector:finish");

    EXPECT_EQ("on the way", outputText(scene.server->waitForRequest("collector:stdout").message));
    scene.agent->disconnect();
    scene.awaitStopped();
    EXPECT_THAT(operationTypes(scene),
                UnorderedElementsAre("collector:finish", "collector:stdout"));
    EXPECT_EQ("disconnect", scene.server->types().back());
}

TEST(OperationTaskTest, TextThatIsStillGatheredAtAFailureFollowsTheFinish) {
    AgentWithFakes scene;
    SleepShim sleep;

    runOperation(scene, [&](OperationMessenger& messenger) -> int {
        messenger.onStderr("late");
        sleep.waitForSleep(1);
        throw std::runtime_error("failed");
    });
    scene.server->waitForRequest("collector:finish");
    EXPECT_EQ(0U, scene.server->count("collector:stderr"));
    sleep.holdNoLonger();

    EXPECT_EQ("late", outputText(scene.server->waitForRequest("collector:stderr").message));
    EXPECT_THAT(operationTypes(scene), ElementsAre("collector:finish", "collector:stderr"));
}

TEST(OperationTaskTest, TextThatComesWhileAFailureIsReportedIsDropped) {
    AgentWithFakes scene;
    std::function<void(const std::string&)> heir;  // somebody who still writes
    scene.server->hold("collector:finish");

    runOperation(scene, [&heir](OperationMessenger& messenger) -> int {
        heir = messenger.onStdout;
        throw std::runtime_error("failed");
    });
    scene.server->waitForRequest("collector:finish");
    heir("late");
    scene.server->release("collector:finish");

    scene.agent->disconnect();
    scene.awaitStopped();
    EXPECT_THAT(operationTypes(scene), ElementsAre("collector:finish"));
}

TEST(OperationTaskTest, TheFinishOfAFailedOperationDoesNotWaitForItsOutput) {
    AgentWithFakes scene;
    scene.server->hold("collector:stdout");

    runOperation(scene, [&](OperationMessenger& messenger) -> int {
        messenger.onStdout("slow");
        scene.server->waitForRequest("collector:stdout");
        throw std::runtime_error("failed");
    });

    EXPECT_EQ("failed",
              scene.server->waitForRequest("collector:finish").message.parameter("errorMessage"));
}

TEST(OperationTaskTest, TextWrittenDuringTheLastSendOfAFailedOperationIsDropped) {
    AgentWithFakes scene;
    scene.server->hold("collector:stdout");

    runOperation(scene, [&](OperationMessenger& messenger) -> int {
        messenger.onStdout("sent");
        scene.server->waitForRequest("collector:stdout");
        messenger.onStdout("lost");
        throw std::runtime_error("failed");
    });
    scene.server->waitForRequest("collector:finish");
    scene.server->release("collector:stdout");
    scene.agent->disconnect();
    scene.awaitStopped();
    scene.destroyAgent();

    EXPECT_THAT(operationTypes(scene), ElementsAre("collector:stdout", "collector:finish"));
    EXPECT_EQ("sent", outputText(scene.server->waitForRequest("collector:stdout").message));
}

TEST(OperationTaskTest, OutputOfAFailedOperationPrecedesDisconnect) {
    AgentWithFakes scene;
    scene.server->hold("collector:stdout");
    std::size_t disconnectsBefore = 1;

    runOperation(scene, [&](OperationMessenger& messenger) -> int {
        messenger.onStdout("slow");
        scene.server->waitForRequest("collector:stdout");
        throw std::runtime_error("failed");
    });
    scene.server->waitForRequest("collector:finish");
    kolvan::test::StopInProgress stopping(*scene.agent);
    scene.server->answer("collector:stdout", [&](const FakeServer::Request&) {
        disconnectsBefore = scene.server->count("disconnect");
        return std::string();
    });
    stopping.wait();

    EXPECT_EQ(0U, disconnectsBefore);
    EXPECT_EQ(1U, scene.server->count("disconnect"));
}

// The finish that cannot be sent.

TEST(OperationTaskTest, AFinishThatBreaksOffIsFollowedByOneWithTheError) {
    AgentWithFakes scene;
    scene.server->fail("collector:finish", "Connection reset by peer");

    runOperation(scene, [](auto&) { return 7; });
    scene.server->waitForRequest("collector:finish", 2);

    EXPECT_EQ(scene.withIdentity({{"id", "1"}, {"code", "7"}}),
              scene.server->waitForRequest("collector:finish", 1).message.parameters);
    EXPECT_EQ(scene.withIdentity({{"id", "1"}, {"errorMessage", "Connection reset by peer"}}),
              scene.server->waitForRequest("collector:finish", 2).message.parameters);
}

TEST(OperationTaskTest, AFinishWhoseReplyHasNoTypeIsFollowedByOneWithTheError) {
    const std::string reply = R"({"messages":[{}]})";
    std::string expected;
    try {
        (void)messagesFromJson(reply);
    } catch (const std::logic_error& error) {
        expected = error.what();
    }
    AgentWithFakes scene;
    scene.server->answerText("collector:finish", reply);

    runOperation(scene, [](auto&) { return 0; });

    EXPECT_EQ(scene.withIdentity({{"id", "1"}, {"errorMessage", expected}}),
              scene.server->waitForRequest("collector:finish", 2).message.parameters);
}

TEST(OperationTaskTest, ASecondFinishThatBreaksOffTooIsPrintedByTheStopOnly) {
    const CapturedStream standardError(STDERR_FILENO);
    AgentWithFakes scene;
    scene.server->fail("collector:finish", "first failure");
    scene.server->fail("collector:finish", "second failure");

    runOperation(scene, [](auto&) { return 0; });
    scene.server->waitForRequest("collector:finish", 2);
    scene.deliver({execute("2", "another")});
    scene.server->waitForRequest("collector:finish", 3);

    EXPECT_EQ("", standardError.text());
    scene.agent->disconnect();
    EXPECT_EQ("second failure\n", standardError.text());
    scene.awaitStopped();
    EXPECT_EQ(3U, scene.server->count("collector:finish"));
}

TEST(OperationTaskTest, AFailedOperationWhoseFinishBreaksOffSendsNoOther) {
    const CapturedStream standardError(STDERR_FILENO);
    AgentWithFakes scene;
    scene.server->fail("collector:finish", "Connection refused");

    runOperation(scene, [](auto&) -> int { throw std::runtime_error("failed"); });
    scene.server->waitForRequest("collector:finish");
    scene.agent->disconnect();
    scene.awaitStopped();

    EXPECT_EQ(1U, scene.server->count("collector:finish"));
    EXPECT_EQ("Connection refused\n", standardError.text());
}

TEST(OperationTaskTest, OutputThatBreaksOffIsNotReported) {
    const CapturedStream standardError(STDERR_FILENO);
    AgentWithFakes scene;
    scene.server->fail("collector:stdout", "Connection refused");

    runOperation(scene, [&](OperationMessenger& messenger) {
        messenger.onStdout("lost");
        scene.server->waitForRequest("collector:stdout");
        return 3;
    });

    EXPECT_EQ(scene.withIdentity({{"id", "1"}, {"code", "3"}}),
              scene.server->waitForRequest("collector:finish").message.parameters);
    scene.agent->disconnect();
    scene.awaitStopped();
    EXPECT_THAT(operationTypes(scene), ElementsAre("collector:stdout", "collector:finish"));
    EXPECT_EQ("", standardError.text());
}

TEST(OperationTaskTest, AFinalFlushThatBreaksOffIsTheErrorOfTheOperation) {
    ThreadShortage shortage;
    AgentWithFakes scene;
    scene.server->fail("collector:stdout", "Connection refused");

    // Without a thread for the delayed send, the text is left to the end of the operation.
    runOperation(scene, [&](OperationMessenger& messenger) {
        shortage.begin();
        messenger.onStdout("lost");
        messenger.onStderr("never looked at");
        shortage.end();
        return 0;
    });

    EXPECT_EQ(scene.withIdentity({{"id", "1"}, {"errorMessage", "Connection refused"}}),
              scene.server->waitForRequest("collector:finish").message.parameters);
    scene.agent->disconnect();
    scene.awaitStopped();
    EXPECT_THAT(operationTypes(scene), ElementsAre("collector:stdout", "collector:finish"));
}

TEST(OperationTaskTest, ChannelsAreFinishedInTheOrderFeedbackStdoutStderr) {
    ThreadShortage shortage;
    AgentWithFakes scene;

    runOperation(scene, [&](OperationMessenger& messenger) {
        shortage.begin();
        messenger.onStderr("e");
        messenger.onStdout("o");
        messenger.onFeedback("f");
        shortage.end();
        return 0;
    });
    scene.server->waitForRequest("collector:finish");

    EXPECT_THAT(operationTypes(scene), ElementsAre("collector:feedback", "collector:stdout",
                                                   "collector:stderr", "collector:finish"));
}

}  // namespace
}  // namespace cagnt1
