#include "agent/Agent.h"

#include "server/AgentConfiguration.h"
#include "server/MessageJson.h"
#include "tests/agent/AgentWithFakes.h"
#include "tests/support/CapturedStream.h"
#include "tests/support/Gate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace cagnt1 {
namespace {

using kolvan::test::AgentWithFakes;
using kolvan::test::cancel;
using kolvan::test::CapturedStream;
using kolvan::test::connected;
using kolvan::test::disconnected;
using kolvan::test::execute;
using kolvan::test::FakeServer;
using kolvan::test::Gate;
using kolvan::test::Messages;
using kolvan::test::serverError;
using kolvan::test::stop;
using kolvan::test::StopInProgress;
using kolvan::test::threadCount;
using kolvan::test::waitUntilThreadCountIsAtMost;
using kolvan::test::waitUntilThreadEnds;
using kolvan::test::waitUntilThreadSleeps;
using testing::ElementsAre;
using testing::IsEmpty;

/// Gives the operation `name` a body that waits until the gate is opened.
void holdOperation(AgentWithFakes& scene, const std::string& name, Gate& mayEnd) {
    scene.operations->bodies[name] = [&mayEnd](auto&) {
        mayEnd.wait();
        return 0;
    };
}

/// Lets every "collector:finish" of the operations with these ids break off.
void failFinishOf(AgentWithFakes& scene, const std::vector<std::string>& ids) {
    scene.server->answerEvery(
        "collector:finish", [ids](const FakeServer::Request& request) -> std::string {
            const std::string id = request.message.parameter("id");
            if (std::find(ids.begin(), ids.end(), id) == ids.end()) {
                return {};
            }
            const bool isSecond = request.message.parameters.count("errorMessage") != 0;
            throw std::runtime_error((isSecond ? "second failure of " : "first failure of ") + id);
        });
}

// disconnect().

/// Stops the agent as far as it goes without the reply to "disconnect".
/// @return the stop, which the reply ends
std::future<void> stopUpToTheReply(AgentWithFakes& scene) {
    scene.server->hold("disconnect");
    scene.startPolling();
    auto stopping = std::async(std::launch::async, [&scene] { scene.agent->disconnect(); });
    scene.server->waitForRequest("disconnect");
    scene.server->answer("commands:get", Messages());
    scene.agent->waitUntilStopped();
    return stopping;
}

TEST(AgentStopTest, DisconnectSaysSoAndThePollInFlightIsTheLast) {
    AgentWithFakes scene;
    scene.startPolling();

    scene.agent->disconnect();
    scene.awaitStopped();

    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "commands:get", "disconnect"));
    EXPECT_EQ(scene.withIdentity({}),
              scene.server->waitForRequest("disconnect").message.parameters);
}

TEST(AgentStopTest, DisconnectIsSaidOnTheCallersThread) {
    AgentWithFakes scene;
    scene.startPolling();

    scene.agent->disconnect();

    EXPECT_EQ(std::this_thread::get_id(), scene.server->waitForRequest("disconnect").thread);
}

TEST(AgentStopTest, AgentHasNotStoppedWhileItsPollIsInFlight) {
    AgentWithFakes scene;
    scene.startPolling();
    std::atomic<bool> hasStopped{false};
    std::promise<pid_t> waiting;
    auto waiter = std::async(std::launch::async, [&] {
        waiting.set_value(::gettid());
        scene.agent->waitUntilStopped();
        hasStopped = true;
    });

    scene.agent->disconnect();
    waitUntilThreadSleeps(waiting.get_future().get());

    EXPECT_FALSE(hasStopped);
    scene.server->answer("commands:get", Messages());
    waiter.get();
    EXPECT_EQ(1U, scene.server->count("commands:get"));
}

TEST(AgentStopTest, EveryWaiterIsToldThatTheAgentHasStopped) {
    AgentWithFakes scene;
    scene.startPolling();
    std::vector<std::future<void>> waiters;
    for (int i = 0; i < 5; ++i) {
        waiters.push_back(std::async(std::launch::async, [&] { scene.agent->waitUntilStopped(); }));
    }

    scene.agent->disconnect();
    scene.awaitStopped();

    for (std::future<void>& waiter : waiters) {
        EXPECT_NO_THROW(waiter.get());
    }
    scene.agent->waitUntilStopped();
}

TEST(AgentStopTest, FurtherCallsAndStopsChangeNothing) {
    AgentWithFakes scene;
    scene.startPolling();

    scene.agent->disconnect();
    scene.agent->disconnect();
    scene.server->answer("commands:get", {stop(), stop()});
    scene.agent->waitUntilStopped();
    scene.agent->disconnect();
    scene.destroyAgent();

    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "commands:get", "disconnect"));
}

TEST(AgentStopTest, CallAfterStopChangesNothing) {
    AgentWithFakes scene;
    scene.startPolling();

    scene.server->answer("commands:get", {stop(), stop()});
    scene.agent->waitUntilStopped();
    scene.agent->disconnect();
    scene.destroyAgent();

    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "commands:get", "disconnect"));
}

TEST(AgentStopTest, CallDuringAStopDoesNotWaitForIt) {
    Gate mayEnd;
    AgentWithFakes scene;
    holdOperation(scene, "hold", mayEnd);
    scene.startPolling();
    scene.deliver({execute("1", "hold")});
    scene.operations->waitForCall("execute");

    StopInProgress stopping(*scene.agent);
    scene.agent->disconnect();

    EXPECT_EQ(0U, scene.server->count("disconnect"));
    mayEnd.open();
    stopping.wait();
    EXPECT_EQ(1U, scene.server->count("disconnect"));
}

TEST(AgentStopTest, RunningOperationsEndBeforeDisconnectIsSaid) {
    Gate mayEnd;
    AgentWithFakes scene;
    holdOperation(scene, "hold", mayEnd);
    scene.operations->bodies["write"] = [&](auto& messenger) {
        mayEnd.wait();
        messenger.onStdout("last words");
        return 0;
    };
    scene.startPolling();
    scene.deliver({execute("1", "hold"), execute("2", "write"), execute("3", "hold")});
    scene.operations->waitForCall("execute", 3);

    StopInProgress stopping(*scene.agent);
    EXPECT_EQ(0U, scene.server->count("disconnect"));
    mayEnd.open();
    stopping.wait();
    scene.awaitStopped();

    const std::vector<std::string> types = scene.server->types();
    EXPECT_EQ(3, std::count(types.begin(), types.end(), "collector:finish"));
    EXPECT_EQ(1, std::count(types.begin(), types.end(), "collector:stdout"));
    EXPECT_EQ("disconnect", types.back());
}

TEST(AgentStopTest, AgentHasNotStoppedWhileAStopWaitsForAnOperation) {
    Gate mayEnd;
    std::atomic<bool> hasStopped{false};
    AgentWithFakes scene;
    holdOperation(scene, "hold", mayEnd);
    scene.startPolling();
    scene.deliver({execute("1", "hold")});
    scene.operations->waitForCall("execute");
    auto waiter = std::async(std::launch::async, [&] {
        scene.agent->waitUntilStopped();
        hasStopped = true;
    });

    StopInProgress stopping(*scene.agent);
    scene.server->answer("commands:get", {serverError("the last answer")});
    scene.operations->waitForCall("onError");
    waitUntilThreadSleeps(scene.server->waitForRequest("connect").kernelThread);

    EXPECT_FALSE(hasStopped);
    EXPECT_EQ(2U, scene.server->count("commands:get"));
    mayEnd.open();
    stopping.wait();
    waiter.get();
    EXPECT_EQ(2U, scene.server->count("commands:get"));
}

TEST(AgentStopTest, StopOfTheServerWaitsForRunningOperationsToo) {
    Gate mayEnd;
    AgentWithFakes scene;
    holdOperation(scene, "hold", mayEnd);
    scene.startPolling();
    scene.deliver({execute("1", "hold")});
    scene.operations->waitForCall("execute");

    scene.server->answer("commands:get", [&](const FakeServer::Request&) {
        mayEnd.open();
        return messagesToJson({stop()});
    });
    scene.agent->waitUntilStopped();

    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "commands:get", "commands:get",
                                                   "collector:finish", "disconnect"));
}

TEST(AgentStopTest, ErrorsThatEscapedFromOperationsAreTextOfTheStopInTheOrderOfLaunching) {
    Gate firstMayEnd;
    const CapturedStream standardError(STDERR_FILENO);
    AgentWithFakes scene;
    holdOperation(scene, "hold", firstMayEnd);
    failFinishOf(scene, {"1", "2"});
    scene.startPolling();
    scene.deliver({execute("1", "hold")});
    scene.deliver({execute("2", "go")});
    scene.server->waitForRequest("collector:finish", 2);
    scene.deliver({execute("3", "go")});
    scene.server->waitForRequest("collector:finish", 3);
    firstMayEnd.open();
    scene.server->waitForRequest("collector:finish", 5);
    scene.deliver({execute("4", "go")});
    scene.server->waitForRequest("collector:finish", 6);
    EXPECT_EQ("", standardError.text());

    scene.agent->disconnect();

    EXPECT_EQ("second failure of 1\nsecond failure of 2\n", standardError.text());
    scene.awaitStopped();
    scene.destroyAgent();
    EXPECT_EQ("second failure of 1\nsecond failure of 2\n", standardError.text());
}

TEST(AgentStopTest, DisconnectThatCannotBeSaidIsThrownAndTheAgentStopsAllTheSame) {
    AgentWithFakes scene;
    scene.server->fail("disconnect", "Connection refused");
    scene.startPolling();

    std::string text;
    try {
        scene.agent->disconnect();
    } catch (const std::runtime_error& error) {
        text = error.what();
    }

    EXPECT_EQ("Connection refused", text);
    EXPECT_NO_THROW(scene.agent->disconnect());
    scene.awaitStopped();
    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "commands:get", "disconnect"));
}

TEST(AgentStopTest, DisconnectThatCannotBeSaidUponStopIsReportedToTheServer) {
    AgentWithFakes scene;
    scene.server->fail("disconnect", "Connection refused");
    scene.startPolling();

    scene.server->answer("commands:get", {stop()});
    scene.agent->waitUntilStopped();

    EXPECT_THAT(scene.server->types(),
                ElementsAre("connect", "commands:get", "disconnect", "error"));
    EXPECT_EQ(scene.withIdentity({{"errorMessage", "Connection refused"}}),
              scene.server->waitForRequest("error").message.parameters);
}

// Replies while the agent stops.

TEST(AgentStopTest, ReplyToDisconnectIsHandledLikeAnyOtherButStartsNothing) {
    AgentWithFakes scene;
    scene.server->answer(
        "disconnect", {disconnected(), serverError("bye"), execute("1", "late"), stop(), cancel()});
    scene.startPolling();

    scene.agent->disconnect();
    scene.awaitStopped();

    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "onDisconnect", "onError[bye]", "cancelOperations"));
    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "commands:get", "disconnect",
                                                   "collector:operations:cancelled"));
}

TEST(AgentStopTest, LaunchesInTheReplyToDisconnectAreDroppedAlsoWhenTheAgentHasStopped) {
    AgentWithFakes scene;
    auto stopping = stopUpToTheReply(scene);

    scene.server->answer("disconnect", {execute("1", "late"), serverError("bye")});
    stopping.get();
    scene.destroyAgent();

    EXPECT_THAT(scene.operations->callTexts(), ElementsAre("onConnect", "onError[bye]"));
    EXPECT_EQ(0U, scene.server->count("collector:finish"));
}

TEST(AgentStopTest, LaunchInTheAnswerOfThePollInFlightIsDroppedAndCancelIsCarriedOut) {
    AgentWithFakes scene;
    scene.startPolling();

    scene.agent->disconnect();
    scene.server->answer("commands:get",
                         {execute("1", "late"), kolvan::test::startCollection("2", "late", ""),
                          kolvan::test::collectionCommand("3", "late"), cancel()});
    scene.agent->waitUntilStopped();
    scene.destroyAgent();

    EXPECT_THAT(scene.operations->callTexts(), ElementsAre("onConnect", "cancelOperations"));
    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "commands:get", "disconnect",
                                                   "collector:operations:cancelled"));
}

TEST(AgentStopTest, CancelInTheAnswerOfThePollInFlightEndsTheOperationThatTheStopWaitsFor) {
    Gate cancelled;
    AgentWithFakes scene;
    holdOperation(scene, "hold", cancelled);
    scene.operations->cancelBody = [&] { cancelled.open(); };
    scene.startPolling();
    scene.deliver({execute("1", "hold")});
    scene.operations->waitForCall("execute");

    StopInProgress stopping(*scene.agent);
    scene.server->answer("commands:get", {execute("2", "late"), cancel(), execute("3", "late")});
    stopping.wait();
    scene.awaitStopped();
    scene.destroyAgent();

    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "execute[hold]", "cancelOperations"));
    EXPECT_EQ(1U, scene.server->count("collector:operations:cancelled"));
    EXPECT_EQ(1U, scene.server->count("collector:finish"));
    EXPECT_EQ(1U, scene.server->count("disconnect"));
}

TEST(AgentStopTest, EveryOtherMessageInTheAnswerOfThePollInFlightIsHandledDuringTheStop) {
    Gate mayEnd;
    AgentWithFakes scene;
    holdOperation(scene, "hold", mayEnd);
    scene.operations->errorBody = [&](const std::string&) { mayEnd.open(); };
    scene.startPolling();
    scene.deliver({execute("1", "hold")});
    scene.operations->waitForCall("execute");

    StopInProgress stopping(*scene.agent);
    scene.server->answer("commands:get", {stop(), disconnected(), serverError("now")});
    stopping.wait();
    scene.awaitStopped();

    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "execute[hold]", "onDisconnect", "onError[now]"));
    EXPECT_EQ(1U, scene.server->count("disconnect"));
}

TEST(AgentStopTest, ConnectedInTheAnswerOfThePollInFlightTakesTheStopBack) {
    AgentWithFakes scene;
    scene.startPolling();

    scene.agent->disconnect();
    scene.server->answer("commands:get", {connected(), execute("1", "go")});
    scene.server->waitForRequest("commands:get", 2);
    scene.server->waitForRequest("collector:finish");
    scene.server->answer("commands:get", {stop()});
    scene.agent->waitUntilStopped();

    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "onConnect", "execute[go]"));
    EXPECT_EQ(2U, scene.server->count("disconnect"));
    EXPECT_EQ(2U, scene.server->count("commands:get"));
}

TEST(AgentStopTest, ConnectedDuringTheWaitForAnOperationTakesTheStopBackToo) {
    Gate mayEnd;
    AgentWithFakes scene;
    holdOperation(scene, "hold", mayEnd);
    scene.startPolling();
    scene.deliver({execute("1", "hold")});
    scene.operations->waitForCall("execute");

    StopInProgress stopping(*scene.agent);
    scene.server->answer("commands:get", {connected()});
    mayEnd.open();
    stopping.wait();
    scene.server->waitForRequest("commands:get", 3);
    EXPECT_EQ(1U, scene.server->count("disconnect"));
    scene.server->answer("commands:get", {stop()});
    scene.agent->waitUntilStopped();

    EXPECT_EQ(2U, scene.operations->calls("onConnect").size());
    EXPECT_EQ(2U, scene.server->count("disconnect"));
}

TEST(AgentStopTest, SecondStopWaitsForTheOperationsOfTheFirstToo) {
    Gate mayEnd;
    AgentWithFakes scene;
    holdOperation(scene, "hold", mayEnd);
    scene.startPolling();
    scene.deliver({execute("1", "hold")});
    scene.operations->waitForCall("execute");
    StopInProgress first(*scene.agent);
    scene.server->answer("commands:get", {connected()});
    scene.operations->waitForCall("onConnect", 2);

    StopInProgress second(*scene.agent);

    EXPECT_EQ(0U, scene.server->count("disconnect"));
    mayEnd.open();
    first.wait();
    second.wait();
    const auto types = scene.server->types();
    EXPECT_LT(std::find(types.begin(), types.end(), "collector:finish"),
              std::find(types.begin(), types.end(), "disconnect"));
    EXPECT_EQ(2U, scene.server->count("disconnect"));
}

TEST(AgentStopTest, ConnectedInTheReplyToDisconnectTakesTheStopBack) {
    AgentWithFakes scene;
    scene.server->answer("disconnect", {connected()});
    scene.startPolling();

    scene.agent->disconnect();
    scene.deliver({});
    scene.agent->disconnect();
    scene.awaitStopped();

    EXPECT_THAT(scene.server->types(),
                ElementsAre("connect", "commands:get", "disconnect", "commands:get", "disconnect"));
}

TEST(AgentStopTest, ConnectedAfterTheEndDoesNotHideThatTheAgentHasStopped) {
    AgentWithFakes scene;
    auto stopping = stopUpToTheReply(scene);

    scene.server->answer("disconnect", {connected()});
    scene.operations->waitForCall("onConnect", 2);
    stopping.get();
    scene.agent->waitUntilStopped();

    EXPECT_EQ(1U, scene.server->count("commands:get"));
}

TEST(AgentStopTest, StopDuringConnectIsTakenBackByConnected) {
    AgentWithFakes scene;
    scene.server->hold("connect");
    scene.start();
    scene.server->waitForRequest("connect");

    scene.agent->disconnect();
    scene.server->answer("connect", {connected()});
    scene.server->waitForRequest("commands:get");

    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "disconnect", "commands:get"));
}

TEST(AgentStopTest, StopDuringConnectWithoutConnectedIsAFailedConnection) {
    const CapturedStream standardError(STDERR_FILENO);
    AgentWithFakes scene;
    scene.server->hold("connect");
    scene.start();
    scene.server->waitForRequest("connect");

    scene.agent->disconnect();
    scene.server->answer("connect", Messages());
    scene.destroyAgent();

    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "disconnect"));
    EXPECT_EQ("Failed to connect to the server\n", standardError.text());
}

// A dead connection task.

TEST(AgentStopTest, PollThatBreaksOffEndsTheTaskInSilenceUntilTheAgentGoes) {
    const CapturedStream standardError(STDERR_FILENO);
    AgentWithFakes scene;
    scene.startPolling();

    scene.server->fail("commands:get", "Server returned nothing (no headers, no data)");
    waitUntilThreadEnds(scene.server->waitForRequest("connect").kernelThread);
    scene.agent->disconnect();
    scene.agent->disconnect();

    EXPECT_EQ("", standardError.text());
    scene.destroyAgent();
    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "commands:get", "disconnect"));
    EXPECT_EQ("Server returned nothing (no headers, no data)\n", standardError.text());
}

TEST(AgentStopTest, OperationsOutliveADeadConnectionTask) {
    Gate mayEnd;
    AgentWithFakes scene;
    holdOperation(scene, "hold", mayEnd);
    scene.server->answer("collector:finish", {serverError("still handled")});
    scene.startPolling();
    scene.deliver({execute("1", "hold")});
    scene.operations->waitForCall("execute");

    scene.server->fail("commands:get", "Connection reset by peer");
    waitUntilThreadEnds(scene.server->waitForRequest("connect").kernelThread);
    mayEnd.open();

    EXPECT_THAT(scene.operations->waitForCall("onError").arguments, ElementsAre("still handled"));
    EXPECT_EQ(0U, scene.server->count("disconnect"));
}

TEST(AgentStopTest, StopAfterTheDeathOfTheConnectionTaskSaysDisconnectOnce) {
    Gate mayEnd;
    AgentWithFakes scene;
    holdOperation(scene, "hold", mayEnd);
    scene.server->answer("collector:finish", {stop(), stop()});
    scene.startPolling();
    scene.deliver({execute("1", "hold")});
    scene.operations->waitForCall("execute");

    scene.server->fail("commands:get", "Connection reset by peer");
    waitUntilThreadEnds(scene.server->waitForRequest("connect").kernelThread);
    mayEnd.open();
    scene.server->waitForRequest("disconnect");
    scene.agent->disconnect();
    scene.destroyAgent();

    EXPECT_EQ(1U, scene.server->count("disconnect"));
}

/// Leaves the process with status 0 when a waiter still waits though nothing is left that could
/// wake it: the connection task is dead and the stop is complete.
[[noreturn]] void exitWhenWaiterStillWaits(const std::function<void(FakeServer&)>& kill) {
    AgentWithFakes scene;
    kill(*scene.server);
    scene.start();
    waitUntilThreadEnds(scene.server->waitForRequest("connect").kernelThread);
    std::atomic<bool> hasStopped{false};
    std::promise<pid_t> waiting;
    std::thread waiter([&] {
        waiting.set_value(::gettid());
        scene.agent->waitUntilStopped();
        hasStopped = true;
    });
    scene.agent->disconnect();
    scene.server->waitForRequest("disconnect");
    // It has ended instead of sleeping when the agent counts as stopped; then this throws.
    waitUntilThreadSleeps(waiting.get_future().get());
    std::_Exit(hasStopped ? 1 : 0);
}

TEST(AgentStopTest, AgentWithADeadConnectionTaskNeverCountsAsStopped) {
    // The waiter cannot be called back, so it ends with a process of its own.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto breakOffPoll = [](FakeServer& server) {
        server.fail("commands:get", "Connection reset by peer");
    };
    const auto refuse = [](FakeServer& server) { server.answer("connect", Messages()); };

    EXPECT_EXIT(exitWhenWaiterStillWaits(breakOffPoll), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(exitWhenWaiterStillWaits(refuse), testing::ExitedWithCode(0), "");
}

// The destructor.

TEST(AgentStopTest, DestructorStopsARunningAgentAndPrintsNothing) {
    const CapturedStream standardError(STDERR_FILENO);
    Gate mayEnd;
    AgentWithFakes scene;
    holdOperation(scene, "hold", mayEnd);
    scene.startPolling();
    scene.deliver({execute("1", "hold")});
    scene.operations->waitForCall("execute");

    mayEnd.open();
    scene.server->answer("commands:get", Messages());
    scene.destroyAgent();

    const std::vector<std::string> types = scene.server->types();
    EXPECT_EQ(1U, scene.server->count("disconnect"));
    EXPECT_LT(std::find(types.begin(), types.end(), "collector:finish"),
              std::find(types.begin(), types.end(), "disconnect"));
    EXPECT_EQ("", standardError.text());
}

TEST(AgentStopTest, DestructorOfAStoppedAgentSaysNothing) {
    const CapturedStream standardError(STDERR_FILENO);
    AgentWithFakes scene;
    scene.startPolling();
    scene.agent->disconnect();
    scene.awaitStopped();

    scene.destroyAgent();

    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "commands:get", "disconnect"));
    EXPECT_EQ("", standardError.text());
}

TEST(AgentStopTest, DestructorSurvivesADisconnectThatCannotBeSaid) {
    const CapturedStream standardError(STDERR_FILENO);
    auto scene = std::make_unique<AgentWithFakes>();
    const std::shared_ptr<FakeServer> server = scene->server;
    server->fail("disconnect", "Connection refused");
    scene->startPolling();
    server->fail("commands:get", "Connection reset by peer");
    waitUntilThreadEnds(server->waitForRequest("connect").kernelThread);

    // Not through the scene, which would let the server answer.
    scene->agent.reset();

    EXPECT_EQ(1U, server->count("disconnect"));
    EXPECT_EQ("Connection refused\nConnection reset by peer\n", standardError.text());
}

TEST(AgentStopTest, DestructorPrintsWhatEscapedFromOperationsBeforeTheTasksError) {
    const CapturedStream standardError(STDERR_FILENO);
    AgentWithFakes scene;
    failFinishOf(scene, {"1"});
    scene.startPolling();
    scene.deliver({execute("1", "go")});
    scene.server->waitForRequest("collector:finish", 2);
    scene.server->fail("commands:get", "Connection reset by peer");
    waitUntilThreadEnds(scene.server->waitForRequest("connect").kernelThread);

    scene.destroyAgent();

    EXPECT_EQ("second failure of 1\nConnection reset by peer\n", standardError.text());
}

TEST(AgentStopTest, DestructorLaunchesNothingThatTheReplyToItsDisconnectAsksFor) {
    AgentWithFakes scene;
    scene.server->fail("commands:get", "Connection reset by peer");
    scene.server->answer("disconnect", {connected(), execute("1", "go")});
    scene.start();
    waitUntilThreadEnds(scene.server->waitForRequest("connect").kernelThread);

    scene.agent.reset();

    EXPECT_THAT(scene.operations->callTexts(), ElementsAre("onConnect", "onConnect"));
    EXPECT_EQ(0U, scene.server->count("collector:finish"));
}

TEST(AgentStopTest, DestructorWaitsForAStopThatAnOperationsReplyHasAskedFor) {
    std::promise<pid_t> destroyer;
    Gate mayEnd;
    AgentWithFakes scene;
    holdOperation(scene, "hold", mayEnd);
    scene.server->hold("disconnect");
    scene.server->answer("collector:finish", {stop()});
    scene.startPolling();
    scene.deliver({execute("1", "hold")});
    mayEnd.open();
    scene.server->waitForRequest("disconnect");
    scene.server->answer("commands:get", Messages());
    scene.agent->waitUntilStopped();

    auto destroying = std::async(std::launch::async, [&] {
        destroyer.set_value(::gettid());
        scene.agent.reset();
    });
    waitUntilThreadSleeps(destroyer.get_future().get());
    scene.server->answer("disconnect", {stop(), disconnected(), serverError("bye")});
    destroying.get();

    EXPECT_THAT(scene.operations->callTexts(),
                ElementsAre("onConnect", "execute[hold]", "onDisconnect", "onError[bye]"));
    EXPECT_EQ(1U, scene.server->count("disconnect"));
}

TEST(AgentStopTest, DestructorPollsNoMoreThoughItsDisconnectIsTakenBack) {
    AgentWithFakes scene;
    scene.server->answer("disconnect", {connected()});
    scene.startPolling();

    auto destroying = std::async(std::launch::async, [&] { scene.agent.reset(); });
    scene.operations->waitForCall("onConnect", 2);
    scene.server->answer("commands:get", Messages());
    scene.server->fail("commands:get", "a poll too many");
    destroying.get();

    EXPECT_THAT(scene.server->types(), ElementsAre("connect", "commands:get", "disconnect"));
}

TEST(AgentStopTest, DestructorCarriesOutAStopInTheLastReplyOfAnOperation) {
    const CapturedStream standardError(STDERR_FILENO);
    Gate mayHandle;
    AgentWithFakes scene;
    const std::size_t threads = threadCount();
    scene.operations->errorBody = [&](const std::string& text) {
        if (text == "hold") {
            mayHandle.wait();
        }
    };
    scene.server->answer("collector:finish", {serverError("hold"), connected(), stop()});
    scene.server->answer("disconnect", Messages());
    scene.server->answer("disconnect", {serverError("bye")});
    scene.startPolling();
    scene.deliver({execute("1", "go")});
    scene.operations->waitForCall("onError");
    scene.server->fail("commands:get", "Connection reset by peer");

    auto destroying = std::async(std::launch::async, [&] { scene.agent.reset(); });
    // This one and the one that handles the reply: no thread is left to carry out a stop.
    waitUntilThreadCountIsAtMost(threads + 2);
    mayHandle.open();
    destroying.get();

    EXPECT_THAT(
        scene.operations->callTexts(),
        ElementsAre("onConnect", "execute[go]", "onError[hold]", "onConnect", "onError[bye]"));
    EXPECT_EQ(2U, scene.server->count("disconnect"));
    EXPECT_EQ("Connection reset by peer\n", standardError.text());
}

// Races.

TEST(AgentStopTest, ManyStopsAtOnceSayDisconnectOnce) {
    for (int i = 0; i < 100; ++i) {
        AgentWithFakes scene;
        scene.startPolling();
        std::vector<std::future<void>> calls;

        scene.server->answer("commands:get", {stop(), stop()});
        for (int call = 0; call < 3; ++call) {
            calls.push_back(std::async(std::launch::async, [&] { scene.agent->disconnect(); }));
        }
        scene.agent->waitUntilStopped();
        for (std::future<void>& call : calls) {
            call.get();
        }

        ASSERT_THAT(scene.server->types(), ElementsAre("connect", "commands:get", "disconnect"));
    }
}

TEST(AgentStopTest, LaunchesRacingWithAStopEitherRunToTheirEndOrNotAtAll) {
    for (int i = 0; i < 200; ++i) {
        AgentWithFakes scene;
        scene.startPolling();

        scene.server->answer("commands:get", Messages(4, execute("1", "go")));
        scene.agent->disconnect();
        const std::size_t finished = scene.server->count("collector:finish");
        scene.awaitStopped();
        scene.destroyAgent();

        ASSERT_EQ(finished, scene.operations->calls("execute").size());
        ASSERT_EQ(finished, scene.server->count("collector:finish"));
        ASSERT_EQ(1U, scene.server->count("disconnect"));
    }
}

TEST(AgentStopTest, ManyLivesLeaveNoThread) {
    const auto live = [] {
        AgentWithFakes scene;
        scene.startPolling();
        scene.deliver({execute("1", "go")});
        scene.agent->disconnect();
        scene.awaitStopped();
    };
    live();
    const std::size_t threads = threadCount();

    for (int i = 0; i < 300; ++i) {
        live();
    }

    EXPECT_NO_THROW(waitUntilThreadCountIsAtMost(threads));
}

}  // namespace
}  // namespace cagnt1
