#include "agent/Agent.h"

#include "server/AgentConfiguration.h"
#include "server/MessageJson.h"
#include "tests/agent/AgentWithFakes.h"
#include "tests/agent/HostNameShim.h"
#include "tests/agent/SleepShim.h"
#include "tests/support/CapturedStream.h"
#include "tests/support/Gate.h"
#include "tests/support/ThreadShortage.h"

#include <boost/system/system_error.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <unistd.h>

namespace cagnt1 {
namespace {

using kolvan::test::AgentWithFakes;
using kolvan::test::cancel;
using kolvan::test::CapturedStream;
using kolvan::test::collectionCommand;
using kolvan::test::connected;
using kolvan::test::disconnected;
using kolvan::test::execute;
using kolvan::test::FakeServer;
using kolvan::test::Gate;
using kolvan::test::HostNameShim;
using kolvan::test::Messages;
using kolvan::test::serverError;
using kolvan::test::SleepShim;
using kolvan::test::startCollection;
using kolvan::test::stop;
using kolvan::test::ThreadShortage;
using kolvan::test::waitUntilThreadEnds;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

const std::string kReplyWithoutType = R"({"messages":[{"messageParameters":{}}]})";

/// What reading a reply says when it is a message without a type.
std::string missingTypeText() {
    try {
        (void)messagesFromJson(kReplyWithoutType);
    } catch (const std::logic_error& error) {
        return error.what();
    }
    return "a reply without a type was read";
}

std::vector<std::string> errorTexts(AgentWithFakes& scene) {
    std::vector<std::string> texts;
    for (const FakeServer::Request& request : scene.server->requests("error")) {
        texts.push_back(request.message.parameter("errorMessage"));
    }
    return texts;
}

/// Lets the connection task come to its end by itself.
void awaitEndOfConnectionTask(AgentWithFakes& scene) {
    waitUntilThreadEnds(scene.server->waitForRequest("connect").kernelThread);
}

// Connecting.

TEST(AgentTest, FirstMessageAnnouncesTheHost) {
    char hostName[1024] = {};
    ASSERT_EQ(0, ::gethostname(hostName, sizeof(hostName)));
    AgentWithFakes scene;

    scene.startPolling();

    EXPECT_EQ("connect", scene.server->types().front());
    EXPECT_EQ(scene.withIdentity({{"hostname", hostName},
                                  {"serverResolvedIpAddress", ""},
                                  {"serverResolvedHostnames", ""}}),
              scene.server->waitForRequest("connect").message.parameters);
}

TEST(AgentTest, HostNameMayBeAsLongAsItsBufferOf1024BytesAllows) {
    const std::string longName(1023, 'h');
    HostNameShim hostName(longName);
    AgentWithFakes scene;

    scene.startPolling();

    EXPECT_EQ(1024U, hostName.bufferSize());
    EXPECT_EQ(longName, scene.server->waitForRequest("connect").message.parameter("hostname"));
}

TEST(AgentTest, UnknownHostNameEndsTheTaskBeforeAnythingIsSent) {
    HostNameShim hostName(EPERM);
    const CapturedStream standardError(STDERR_FILENO);
    AgentWithFakes scene;

    scene.start();
    scene.destroyAgent();

    EXPECT_EQ(0U, scene.server->count("connect"));
    EXPECT_EQ(0U, scene.server->count("commands:get"));
    const boost::system::system_error reason(EPERM, boost::system::system_category());
    EXPECT_EQ(reason.what() + std::string("\n"), standardError.text());
}

TEST(AgentTest, UuidIsARandomOneInLowerCase) {
    AgentWithFakes scene;

    scene.startPolling();

    EXPECT_THAT(scene.agentUuid(), MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-"
                                                "[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
}

TEST(AgentTest, EveryAgentHasAUuidOfItsOwn) {
    std::set<std::string> uuids;

    for (int i = 0; i < 50; ++i) {
        AgentWithFakes scene;
        scene.startPolling();
        uuids.insert(scene.agentUuid());
    }

    EXPECT_EQ(50U, uuids.size());
}

TEST(AgentTest, EveryMessageCarriesUuidAndToken) {
    AgentWithFakes scene;
    int cancels = 0;
    scene.operations->cancelBody = [&] {
        if (++cancels == 2) {
            throw std::runtime_error("no second cancel");
        }
    };
    scene.operations->bodies["write"] = [](auto& messenger) {
        messenger.onFeedback("f");
        messenger.onStdout("o");
        messenger.onStderr("e");
        return 0;
    };
    scene.operations->bodies["fail"] = [](auto&) -> int { throw std::runtime_error("failed"); };
    scene.startPolling();

    scene.deliver({cancel(), cancel(), execute("1", "write"), execute("2", "fail")});
    scene.server->waitForRequest("collector:finish", 2);
    scene.server->answer("commands:get", {stop()});
    scene.agent->waitUntilStopped();

    const std::string uuid = scene.agentUuid();
    for (const FakeServer::Request& request : scene.server->requests()) {
        EXPECT_EQ(uuid, request.message.parameter("agentUuid")) << request.text;
        EXPECT_EQ(AgentWithFakes::kAccessToken, request.message.parameter("accessToken"))
            << request.text;
    }
    const std::vector<std::string> types = scene.server->types();
    EXPECT_EQ((std::set<std::string>{"connect", "commands:get", "collector:operations:cancelled",
                                     "error", "collector:feedback", "collector:stdout",
                                     "collector:stderr", "collector:finish", "disconnect"}),
              std::set<std::string>(types.begin(), types.end()));
}

TEST(AgentTest, ARequestIsTheTextOfOneMessage) {
    AgentWithFakes scene;

    scene.startPolling();

    const std::string head = R"({"messageType":"commands:get","messageParameters":{)";
    const std::string uuid = R"("agentUuid":")" + scene.agentUuid() + "\"";
    const std::string token = R"("accessToken":"token/of the \"test\"")";
    EXPECT_THAT(scene.server->waitForRequest("commands:get").text,
                AnyOf(head + uuid + "," + token + "}}", head + token + "," + uuid + "}}"));
}

TEST(AgentTest, WithoutAThreadThereIsNoAgent) {
    ThreadShortage shortage;
    AgentWithFakes scene;
    shortage.begin();

    EXPECT_THROW(scene.start(), std::system_error);

    EXPECT_THAT(scene.server->types(), IsEmpty());
}

TEST(AgentTest, ReplyToConnectWithoutConnectedEndsTheTaskAndNothingIsRetried) {
    for (const std::string reply : {R"({"messages":[{"messageType":"disconnected"}]})",
                                    R"({"messages":[]})", "", "no JSON"}) {
        const CapturedStream standardError(STDERR_FILENO);
        AgentWithFakes scene;
        scene.server->answerText("connect", reply);

        scene.start();
        awaitEndOfConnectionTask(scene);

        EXPECT_THAT(scene.server->types(), ElementsAre("connect")) << reply;
        EXPECT_EQ("", standardError.text()) << reply;
        scene.destroyAgent();
        EXPECT_THAT(scene.server->types(), ElementsAre("connect", "disconnect")) << reply;
        EXPECT_EQ("Failed to connect to the server\n", standardError.text()) << reply;
    }
}

TEST(AgentTest, TransportFailureOfConnectEndsTheTask) {
    const CapturedStream standardError(STDERR_FILENO);
    AgentWithFakes scene;
    scene.server->fail("connect", "Could not resolve host");

    scene.start();
    awaitEndOfConnectionTask(scene);
    scene.destroyAgent();

    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "disconnect"));
    EXPECT_EQ("Could not resolve host\n", standardError.text());
}

TEST(AgentTest, ReplyToConnectWithAMessageWithoutTypeEndsTheTask) {
    const CapturedStream standardError(STDERR_FILENO);
    AgentWithFakes scene;
    scene.server->answerText(
        "connect", R"({"messages":[{"messageType":"connected"},{"messageParameters":{}}]})");

    scene.start();
    awaitEndOfConnectionTask(scene);
    scene.destroyAgent();

    EXPECT_THAT(scene.operations->callTexts(), IsEmpty());
    EXPECT_EQ(0U, scene.server->count("commands:get"));
    EXPECT_EQ(missingTypeText() + "\n", standardError.text());
}

TEST(AgentTest, ReplyToConnectIsHandledInOrderBeforeTheFirstPoll) {
    AgentWithFakes scene;
    std::size_t pollsWhenHandled = 1;
    scene.operations->errorBody = [&](const std::string&) {
        pollsWhenHandled = scene.server->count("commands:get");
    };
    scene.server->answer("connect", {connected(), disconnected(), serverError("last")});

    scene.startPolling();

    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "onDisconnect", "onError[last]"));
    EXPECT_EQ(0U, pollsWhenHandled);
}

TEST(AgentTest, ConnectedCountsThoughOnConnectThrows) {
    AgentWithFakes scene;
    scene.operations->connectBody = [] { throw std::runtime_error("no collector"); };

    scene.startPolling();

    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "error", "commands:get"));
    EXPECT_EQ(scene.withIdentity({{"errorMessage", "no collector"}}),
              scene.server->waitForRequest("error").message.parameters);
}

TEST(AgentTest, ConnectedInTheReplyToAnErrorOfTheReplyToConnectCounts) {
    AgentWithFakes scene;
    scene.operations->disconnectBody = [] { throw std::runtime_error("not yet"); };
    scene.server->answer("connect", {disconnected()});
    scene.server->answer("error", {connected()});

    scene.startPolling();

    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "error", "commands:get"));
    EXPECT_THAT(scene.operations->callTexts(), ElementsAre("onDisconnect", "onConnect"));
}

TEST(AgentTest, ConnectedAndStopTogetherAreAFailedConnection) {
    const CapturedStream standardError(STDERR_FILENO);
    AgentWithFakes scene;
    scene.server->answer("connect", {connected(), stop(), serverError("after")});

    scene.start();
    awaitEndOfConnectionTask(scene);
    scene.agent->disconnect();
    scene.destroyAgent();

    EXPECT_THAT(scene.operations->callTexts(), ElementsAre("onConnect", "onError[after]"));
    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "disconnect"));
    EXPECT_EQ("Failed to connect to the server\n", standardError.text());
}

TEST(AgentTest, StopBeforeConnectedIsTakenBackByIt) {
    AgentWithFakes scene;
    scene.server->answer("connect", {stop(), connected()});

    scene.startPolling();

    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "disconnect", "commands:get"));
}

TEST(AgentTest, ConnectedAgainCallsOnConnectAgainAndChangesNothingElse) {
    AgentWithFakes scene;
    scene.startPolling();

    scene.deliver({connected()});
    scene.deliver({connected(), connected()});

    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "onConnect", "onConnect", "onConnect"));
    EXPECT_THAT(scene.server->types(),
                ElementsAre("connect", "commands:get", "commands:get", "commands:get"));
}

TEST(AgentTest, WithoutOperationsEveryMessageIsIgnored) {
    const CapturedStream standardError(STDERR_FILENO);
    AgentWithFakes scene;
    scene.server->answer("connect", {connected(), stop(), cancel(), execute("1", "")});
    auto agent = std::make_unique<Agent>(AgentConfiguration{}, scene.server, nullptr);

    awaitEndOfConnectionTask(scene);

    EXPECT_THAT(scene.server->types(), ElementsAre("connect"));
    agent.reset();
    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "disconnect"));
    EXPECT_EQ("Failed to connect to the server\n", standardError.text());
}

// Polling.

TEST(AgentTest, PollsAndDisconnectCarryNothingButTheIdentity) {
    AgentWithFakes scene;
    scene.startPolling();

    scene.server->answer("commands:get", {stop()});
    scene.agent->waitUntilStopped();

    EXPECT_EQ(scene.withIdentity({}),
              scene.server->waitForRequest("commands:get").message.parameters);
    EXPECT_EQ(scene.withIdentity({}),
              scene.server->waitForRequest("disconnect").message.parameters);
}

TEST(AgentTest, EveryAnswerIsFollowedByTheNextPollOnTheSameThread) {
    AgentWithFakes scene;
    scene.startPolling();

    for (int i = 0; i < 200; ++i) {
        scene.deliver({});
    }

    const std::vector<FakeServer::Request> requests = scene.server->requests();
    ASSERT_EQ(202U, requests.size());
    for (const FakeServer::Request& request : requests) {
        EXPECT_EQ(requests.front().thread, request.thread);
    }
}

TEST(AgentTest, NothingIsWaitedForBetweenAnAnswerAndTheNextPoll) {
    constexpr std::size_t kPolls = 1000;
    SleepShim sleep;
    sleep.holdNoLonger();
    AgentWithFakes scene;
    for (std::size_t poll = 0; poll < kPolls; ++poll) {
        scene.server->answer("commands:get", Messages{});
    }
    scene.start();

    scene.server->waitForRequest("commands:get", kPolls + 1);

    EXPECT_THAT(sleep.durations(), IsEmpty());
}

TEST(AgentTest, RepliesWithoutMessagesAreIgnored) {
    const std::vector<std::string> replies = {"",
                                              "no JSON",
                                              "{}",
                                              "[]",
                                              "null",
                                              R"({"messages":{}})",
                                              R"({"messages":[]})",
                                              R"({"messages":[{"messageType":"stop"}]} and more)",
                                              "<html>Internal Server Error</html>"};
    AgentWithFakes scene;
    scene.startPolling();

    for (std::size_t i = 0; i < replies.size(); ++i) {
        scene.server->answerText("commands:get", replies[i]);
        scene.server->waitForRequest("commands:get", i + 2);
    }

    EXPECT_THAT(scene.operations->callTexts(), ElementsAre("onConnect"));
    EXPECT_EQ(replies.size() + 2, scene.server->requests().size());
}

TEST(AgentTest, MessagesOfAReplyAreHandledInOrderBeforeTheNextPoll) {
    AgentWithFakes scene;
    std::vector<std::size_t> pollsWhenHandled;
    scene.operations->errorBody = [&](const std::string&) {
        pollsWhenHandled.push_back(scene.server->count("commands:get"));
    };
    scene.startPolling();

    scene.deliver({serverError("1"), disconnected(), serverError("2"), cancel(), serverError("3")});

    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "onError[1]", "onDisconnect", "onError[2]",
                            "cancelOperations", "onError[3]"));
    EXPECT_THAT(pollsWhenHandled, ElementsAre(1U, 1U, 1U));
    EXPECT_THAT(
        scene.server->types(),
        ElementsAre("connect", "commands:get", "collector:operations:cancelled", "commands:get"));
}

TEST(AgentTest, MessageWithoutTypeInTheAnswerToAPollEndsTheTask) {
    const CapturedStream standardError(STDERR_FILENO);
    AgentWithFakes scene;
    scene.startPolling();

    scene.server->answerText("commands:get", R"({"messages":[{"messageType":"disconnected"},{}]})");
    awaitEndOfConnectionTask(scene);

    EXPECT_EQ("", standardError.text());
    scene.destroyAgent();
    EXPECT_THAT(scene.operations->callTexts(), ElementsAre("onConnect"));
    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "commands:get", "disconnect"));
    EXPECT_EQ(missingTypeText() + "\n", standardError.text());
}

// The table of messages.

TEST(AgentTest, DisconnectedCallsOnDisconnectOnly) {
    AgentWithFakes scene;
    scene.startPolling();

    scene.deliver({disconnected()});

    EXPECT_THAT(scene.operations->callTexts(), ElementsAre("onConnect", "onDisconnect"));
    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "commands:get", "commands:get"));
}

TEST(AgentTest, ErrorCallsOnErrorWithTheTextOfTheServer) {
    AgentWithFakes scene;
    scene.startPolling();

    scene.deliver({serverError("license expired"), {"error", {}}, serverError("")});

    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "onError[license expired]", "onError[Unspecified error.]",
                            "onError[]"));
    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "commands:get", "commands:get"));
}

TEST(AgentTest, CollectionStartPassesOptionsAndUploadDirectory) {
    AgentWithFakes scene;
    scene.startPolling();

    scene.deliver({startCollection("7", "-a\n-b two\n", "traces/of today")});
    scene.server->waitForRequest("collector:finish");

    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "performCollection[-a\n-b two\n][traces/of today]"));
}

TEST(AgentTest, CollectionStartPassesEmptyTextsForWhatIsMissing) {
    AgentWithFakes scene;
    scene.startPolling();

    scene.deliver({{"collector:collection:start", {{"id", "7"}, {"options", "-a"}}}});
    scene.operations->waitForCall("performCollection");
    scene.deliver({{"collector:collection:start", {{"id", "8"}}}});
    scene.server->waitForRequest("collector:finish", 2);

    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "performCollection[-a][]", "performCollection[][]"));
}

TEST(AgentTest, CollectionCommandPassesItsCommand) {
    AgentWithFakes scene;
    scene.startPolling();

    scene.deliver({collectionCommand("7", "pause now")});
    scene.operations->waitForCall("collectionCommand");
    scene.deliver({{"collector:collection:command", {{"id", "8"}}}});
    scene.server->waitForRequest("collector:finish", 2);

    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "collectionCommand[pause now]", "collectionCommand[]"));
}

TEST(AgentTest, OperationWithoutIdFinishesWithAnEmptyOne) {
    AgentWithFakes scene;
    scene.startPolling();

    scene.deliver({{"collector:execute", {}}});

    EXPECT_EQ(scene.withIdentity({{"id", ""}, {"code", "0"}}),
              scene.server->waitForRequest("collector:finish").message.parameters);
}

TEST(AgentTest, CancelIsAnsweredAfterItIsDoneAndOnTheThreadThatReceivedIt) {
    AgentWithFakes scene;
    std::size_t answersWhenDone = 1;
    scene.operations->cancelBody = [&] {
        answersWhenDone = scene.server->count("collector:operations:cancelled");
    };
    scene.startPolling();

    scene.deliver({cancel()});

    EXPECT_EQ(0U, answersWhenDone);
    const FakeServer::Request answer =
        scene.server->waitForRequest("collector:operations:cancelled");
    EXPECT_EQ(scene.withIdentity({}), answer.message.parameters);
    const std::thread::id pollingThread = scene.server->waitForRequest("commands:get").thread;
    EXPECT_EQ(pollingThread, answer.thread);
    EXPECT_EQ(pollingThread, scene.operations->waitForCall("cancelOperations").thread);
    EXPECT_THAT(scene.operations->callTexts(), ElementsAre("onConnect", "cancelOperations"));
}

TEST(AgentTest, StopSaysDisconnectOnceAndEndsThePolling) {
    AgentWithFakes scene;
    scene.startPolling();

    scene.server->answer("commands:get", {stop()});
    scene.agent->waitUntilStopped();

    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "commands:get", "disconnect"));
    EXPECT_THAT(scene.operations->callTexts(), ElementsAre("onConnect"));
}

TEST(AgentTest, MessagesAfterStopInTheSameReplyAreHandledButStartNothing) {
    AgentWithFakes scene;
    scene.startPolling();

    scene.server->answer("commands:get", {stop(), execute("1", "late"), cancel(), stop()});
    scene.agent->waitUntilStopped();

    EXPECT_THAT(scene.operations->callTexts(), ElementsAre("onConnect", "cancelOperations"));
    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "commands:get", "disconnect",
                                                   "collector:operations:cancelled"));
}

TEST(AgentTest, UnknownTypesAreIgnored) {
    AgentWithFakes scene;
    scene.startPolling();

    scene.deliver({{"connect", {}},
                   {"commands:get", {}},
                   {"disconnect", {}},
                   {"collector:operations:cancelled", {}},
                   {"collector:stdout", {{"id", "1"}}},
                   {"collector:finish", {{"id", "1"}}},
                   {"collector:collection", {}},
                   {"Stop", {}},
                   {"stop ", {}},
                   {"", {}},
                   {"no such type", {{"errorMessage", "text"}}}});

    EXPECT_THAT(scene.operations->callTexts(), ElementsAre("onConnect"));
    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "commands:get", "commands:get"));
}

TEST(AgentTest, UnknownParametersAreIgnored) {
    AgentWithFakes scene;
    scene.startPolling();

    scene.deliver({{"disconnected", {{"id", "1"}, {"why", "maintenance"}}},
                   {"collector:execute", {{"id", "2"}, {"args", "go"}, {"options", "other"}}}});

    EXPECT_EQ(scene.withIdentity({{"id", "2"}, {"code", "0"}}),
              scene.server->waitForRequest("collector:finish").message.parameters);
    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "onDisconnect", "execute[go]"));
}

struct Splitting {
    std::string args;
    std::vector<std::string> expected;
};

TEST(AgentTest, ArgsAreSplitAtEverySingleBlankAndNothingElse) {
    const std::vector<Splitting> splittings = {
        {"--version", {"--version"}},
        {"one two", {"one", "two"}},
        {"one  two", {"one", "", "two"}},
        {"one   two", {"one", "", "", "two"}},
        {" one", {"", "one"}},
        {"one ", {"one", ""}},
        {" ", {"", ""}},
        {"", {""}},
        {"\"a b\" 'c' d\\ e", {"\"a", "b\"", "'c'", "d\\", "e"}},
        {"tab\there\nline", {"tab\there\nline"}},
    };
    AgentWithFakes scene;
    scene.startPolling();

    for (std::size_t i = 0; i < splittings.size(); ++i) {
        scene.deliver({execute("1", splittings[i].args)});

        EXPECT_EQ(splittings[i].expected,
                  scene.operations->waitForCall("execute", i + 1).arguments);
    }
}

TEST(AgentTest, MissingArgsAreOneEmptyArgument) {
    AgentWithFakes scene;
    scene.startPolling();

    scene.deliver({{"collector:execute", {{"id", "1"}}}});

    EXPECT_THAT(scene.operations->waitForCall("execute").arguments, ElementsAre(""));
}

// Threads of what the server asks for.

TEST(AgentTest, OperationsRunAtTheSameTimeOnThreadsOfTheirOwn) {
    constexpr std::size_t kOperations = 40;
    Gate mayEnd;
    AgentWithFakes scene;
    scene.operations->bodies["wait"] = [&](auto&) {
        mayEnd.wait();
        return 0;
    };
    scene.startPolling();

    // Some with the same id: nobody looks at it.
    scene.deliver(Messages(kOperations, execute("same", "wait")));
    scene.operations->waitForCall("execute", kOperations);

    EXPECT_EQ(0U, scene.server->count("collector:finish"));
    mayEnd.open();
    scene.server->waitForRequest("collector:finish", kOperations);
    std::set<std::thread::id> threads = {scene.server->waitForRequest("connect").thread};
    for (const auto& call : scene.operations->calls("execute")) {
        threads.insert(call.thread);
    }
    EXPECT_EQ(kOperations + 1, threads.size());
}

TEST(AgentTest, AnOperationReportsItsEndFromItsOwnThread) {
    AgentWithFakes scene;
    scene.startPolling();

    scene.deliver({execute("1", "go")});

    EXPECT_EQ(scene.operations->waitForCall("execute").thread,
              scene.server->waitForRequest("collector:finish").thread);
}

TEST(AgentTest, CallsWithoutOperationRunOnThePollingThread) {
    AgentWithFakes scene;
    scene.startPolling();

    scene.deliver({disconnected(), serverError("text"), cancel()});

    const std::thread::id pollingThread = scene.server->waitForRequest("connect").thread;
    for (const auto& call : scene.operations->calls()) {
        EXPECT_EQ(pollingThread, call.thread) << call.function;
    }
    EXPECT_EQ(4U, scene.operations->calls().size());
}

// Failures while a message is handled.

TEST(AgentTest, EachFailingMessageIsReportedOnceAndTheRestIsHandled) {
    AgentWithFakes scene;
    scene.operations->connectBody = [] { throw std::runtime_error("no collector"); };
    scene.operations->disconnectBody = [] { throw std::logic_error("no connection"); };
    scene.operations->errorBody = [](const std::string&) { throw std::runtime_error(""); };
    scene.operations->cancelBody = [] { throw std::runtime_error("no \"collection\"\n"); };
    scene.startPolling();

    scene.deliver({disconnected(), serverError("text"), cancel(), connected()});

    EXPECT_THAT(errorTexts(scene), ElementsAre("no collector", "no connection", "",
                                               "no \"collection\"\n", "no collector"));
    EXPECT_THAT(
        scene.operations->callTexts(),
        ElementsAre("onConnect", "onDisconnect", "onError[text]", "cancelOperations", "onConnect"));
    EXPECT_EQ(0U, scene.server->count("collector:operations:cancelled"));
}

TEST(AgentTest, AFailureIsReportedBeforeTheNextMessageIsHandled) {
    AgentWithFakes scene;
    scene.operations->disconnectBody = [] { throw std::runtime_error("first"); };
    std::size_t errorsWhenHandled = 0;
    scene.operations->errorBody = [&](const std::string&) {
        errorsWhenHandled = scene.server->count("error");
    };
    scene.startPolling();

    scene.deliver({disconnected(), serverError("second")});

    EXPECT_EQ(1U, errorsWhenHandled);
    EXPECT_EQ(scene.withIdentity({{"errorMessage", "first"}}),
              scene.server->waitForRequest("error").message.parameters);
}

TEST(AgentTest, ReplyToAnErrorIsHandledLikeAnyOther) {
    AgentWithFakes scene;
    scene.operations->disconnectBody = [] { throw std::runtime_error("first"); };
    scene.server->answer("error", {serverError("nested"), execute("1", "nested")});
    scene.startPolling();

    scene.deliver({disconnected(), serverError("after")});
    scene.server->waitForRequest("collector:finish");

    EXPECT_THAT(scene.operations->calls("onError").at(0).arguments, ElementsAre("nested"));
    EXPECT_THAT(scene.operations->calls("onError").at(1).arguments, ElementsAre("after"));
}

TEST(AgentTest, StopInTheReplyToAnErrorStopsTheAgent) {
    AgentWithFakes scene;
    scene.operations->disconnectBody = [] { throw std::runtime_error("first"); };
    scene.server->answer("error", {stop()});
    scene.startPolling();

    scene.server->answer("commands:get", {disconnected()});
    scene.agent->waitUntilStopped();

    EXPECT_THAT(scene.server->types(),
                ElementsAre("connect", "commands:get", "error", "disconnect"));
}

TEST(AgentTest, TransportFailureOfAnAnswerToCancelIsReported) {
    AgentWithFakes scene;
    scene.server->fail("collector:operations:cancelled", "Connection reset by peer");
    scene.startPolling();

    scene.deliver({cancel(), serverError("after")});

    EXPECT_THAT(errorTexts(scene), ElementsAre("Connection reset by peer"));
    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "cancelOperations", "onError[after]"));
}

TEST(AgentTest, MessageWithoutTypeInAReplyWithinTheHandlingIsReported) {
    AgentWithFakes scene;
    scene.server->answerText("collector:operations:cancelled", kReplyWithoutType);
    scene.startPolling();

    scene.deliver({cancel(), serverError("after")});

    EXPECT_THAT(errorTexts(scene), ElementsAre(missingTypeText()));
    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "cancelOperations", "onError[after]"));
}

TEST(AgentTest, AnErrorThatCannotBeReportedEndsTheTaskAndTheRestOfTheReply) {
    const CapturedStream standardError(STDERR_FILENO);
    AgentWithFakes scene;
    scene.operations->disconnectBody = [] { throw std::runtime_error("first"); };
    scene.server->fail("error", "Connection refused");
    scene.startPolling();

    scene.server->answer("commands:get", {disconnected(), serverError("after")});
    awaitEndOfConnectionTask(scene);

    EXPECT_THAT(scene.operations->callTexts(), ElementsAre("onConnect", "onDisconnect"));
    EXPECT_EQ("", standardError.text());
    scene.destroyAgent();
    EXPECT_THAT(scene.server->types(),
                ElementsAre("connect", "commands:get", "error", "disconnect"));
    EXPECT_EQ("Connection refused\n", standardError.text());
}

TEST(AgentTest, AnErrorThatCannotBeReportedInANestedReplyIsAFailureOfTheOuterMessage) {
    AgentWithFakes scene;
    scene.operations->disconnectBody = [] { throw std::runtime_error("first"); };
    scene.server->answer("collector:operations:cancelled", {disconnected(), serverError("inner")});
    scene.server->fail("error", "Connection refused");
    scene.server->answer("error", {serverError("answer to the second")});
    scene.startPolling();

    scene.deliver({cancel(), serverError("outer")});

    EXPECT_THAT(errorTexts(scene), ElementsAre("first", "Connection refused"));
    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "cancelOperations", "onDisconnect",
                            "onError[answer to the second]", "onError[outer]"));
    EXPECT_THAT(scene.server->types(),
                ElementsAre("connect", "commands:get", "collector:operations:cancelled", "error",
                            "error", "commands:get"));
}

TEST(AgentTest, EachNestedReplyIsGivenUpUntilAnErrorCanBeReported) {
    AgentWithFakes scene;
    scene.operations->disconnectBody = [] { throw std::runtime_error("first"); };
    scene.server->answer("collector:operations:cancelled", {cancel(), serverError("second level")});
    scene.server->answer("collector:operations:cancelled",
                         {disconnected(), serverError("third level")});
    scene.server->fail("error", "broken once");
    scene.server->fail("error", "broken twice");
    scene.startPolling();

    scene.deliver({cancel(), serverError("first level")});

    EXPECT_THAT(errorTexts(scene), ElementsAre("first", "broken once", "broken twice"));
    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "cancelOperations", "cancelOperations", "onDisconnect",
                            "onError[first level]"));
}

TEST(AgentTest, AnErrorThatCannotBeReportedInTheReplyToAnErrorIsAFailureOfTheOuterMessage) {
    AgentWithFakes scene;
    scene.operations->disconnectBody = [] { throw std::runtime_error("first"); };
    scene.operations->errorBody = [](const std::string& text) {
        if (text == "answer") {
            throw std::runtime_error("second");
        }
    };
    scene.server->answer("collector:operations:cancelled", {disconnected(), serverError("inner")});
    scene.server->answer("error", {serverError("answer"), serverError("rest of the answer")});
    scene.server->fail("error", "Connection refused");
    scene.startPolling();

    scene.deliver({cancel(), serverError("outer")});

    EXPECT_THAT(errorTexts(scene), ElementsAre("first", "second", "Connection refused"));
    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "cancelOperations", "onDisconnect", "onError[answer]",
                            "onError[outer]"));
}

TEST(AgentTest, ErrorsThatCannotBeReportedOnAnyLevelEndTheTask) {
    const CapturedStream standardError(STDERR_FILENO);
    AgentWithFakes scene;
    scene.operations->disconnectBody = [] { throw std::runtime_error("first"); };
    scene.server->answer("collector:operations:cancelled", {disconnected(), serverError("inner")});
    scene.server->fail("error", "broken once");
    scene.server->fail("error", "broken twice");
    scene.startPolling();

    scene.server->answer("commands:get", {cancel(), serverError("outer")});
    awaitEndOfConnectionTask(scene);

    EXPECT_THAT(errorTexts(scene), ElementsAre("first", "broken once"));
    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "cancelOperations", "onDisconnect"));
    scene.destroyAgent();
    EXPECT_EQ("broken twice\n", standardError.text());
}

TEST(AgentTest, OperationsThatFindNoThreadAreReportedAndEndAndTheRestIsHandled) {
    ThreadShortage shortage;
    AgentWithFakes scene;
    scene.operations->errorBody = [&](const std::string&) { shortage.end(); };
    scene.startPolling();

    scene.server->answer("commands:get", [&](const FakeServer::Request&) {
        shortage.begin();
        return messagesToJson(
            {execute("1", "a"), execute("2", "b"), serverError("enough"), execute("3", "c")});
    });
    scene.server->waitForRequest("collector:finish", 3);

    const std::string expected =
        std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again)).what();
    EXPECT_THAT(errorTexts(scene), ElementsAre(expected, expected));
    EXPECT_EQ(scene.withIdentity({{"id", "1"}, {"errorMessage", expected}}),
              scene.server->requests("collector:finish")[0].message.parameters);
    EXPECT_EQ(scene.withIdentity({{"id", "2"}, {"errorMessage", expected}}),
              scene.server->requests("collector:finish")[1].message.parameters);
    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "onError[enough]", "execute[c]"));
}

}  // namespace
}  // namespace cagnt1
