#include "tests/endtoend/AgentScene.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace kolvan::test {
namespace {

namespace messages = cagnt1::sample::server::messages;

using cagnt1::sample::server::Channel;
using cagnt1::sample::server::ProfilingServer;
using cagnt1::sample::server::ServerMessage;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using Clock = std::chrono::steady_clock;
using Commands = std::vector<ServerMessage>;

constexpr int kStormSignals = 10000;

SceneSettings withPollsThatOnlyTheTestAnswers() {
    SceneSettings settings;
    settings.server.releasePollsOnDisconnect = false;
    settings.server.pollTimeout = 2 * ProfilingServer::kPatience;
    return settings;
}

TEST(InterruptTest, PollInFlightIsNotCutAndItsLaunchesAreDroppedButItsCancelIsCarriedOut) {
    AgentScene scene(withPollsThatOnlyTheTestAnswers());
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.server().waitForHeldPolls());

    agent.sendSignal(SIGINT);

    ASSERT_TRUE(scene.server().waitForMessage("disconnect"));
    EXPECT_TRUE(scene.server().waitForHeldPolls());
    EXPECT_TRUE(agent.isRunning());
    scene.server().send(
        {messages::execute("late", "out x"), messages::startCollection("later", "out\nx", ""),
         messages::collectionCommand("latest", "status"), messages::cancel(), messages::stop()});
    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_THAT(scene.messageTypes(),
                ElementsAre("connect", "disconnect", "collector:operations:cancelled"));
    EXPECT_EQ(1U, scene.server().count("commands:get"));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.resultDirectories(), IsEmpty());
    EXPECT_THAT(leftChildren(), IsEmpty());
}

// Threads of the agent that would take the signal now.
int threadsThatLetIn(const AgentProcess& agent, int signal) {
    int count = 0;
    for (const pid_t thread : agent.threads()) {
        std::ifstream status("/proc/" + std::to_string(agent.pid()) + "/task/" +
                             std::to_string(thread) + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("SigBlk:")) {
                const std::uint64_t blocked = std::stoull(line.substr(7), nullptr, 16);
                count += (blocked >> (signal - 1) & 1U) == 0 ? 1 : 0;
            }
        }
    }
    return count;
}

TEST(InterruptTest, OneThreadLetsInterruptsInAndNoneBrokenPipes) {
    AgentScene scene;
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.server().waitForHeldPolls());

    // The thread that lets it in may not wait yet.
    const auto deadline = Clock::now() + ProfilingServer::kPatience;
    while (threadsThatLetIn(agent, SIGINT) == 0 && Clock::now() < deadline) {
        std::this_thread::yield();
    }

    EXPECT_EQ(1, threadsThatLetIn(agent, SIGINT));
    EXPECT_EQ(0, threadsThatLetIn(agent, SIGPIPE));
    EXPECT_LT(3U, agent.threads().size());
    scene.server().send(messages::stop());
    EXPECT_EQ("exited with 0", agent.waitForEnd());
}

TEST(InterruptTest, OperationEndsAndIsReportedBeforeTheDisconnect) {
    AgentScene scene(withPollsThatOnlyTheTestAnswers());
    const auto leash = scene.makeLeash();
    AgentProcess agent(scene.launch());
    scene.server().send(messages::startCollection(
        "run", "-r\nx\nfb\nstarted\nwait\n" + leash->path() + "\ntrace\ndata.0/t\ny\nexit\n6",
        "traces"));
    ASSERT_TRUE(scene.server().waitForOutput("run", Channel::Feedback, "started\n"));
    ASSERT_TRUE(scene.server().waitForHeldPolls());

    agent.sendSignal(SIGINT);
    ASSERT_TRUE(agent.waitUntilDelivered(SIGINT));
    EXPECT_EQ(0U, scene.server().count("disconnect"));
    leash->release();

    EXPECT_EQ("code 6", scene.outcome("run"));
    ASSERT_TRUE(scene.server().waitForMessage("disconnect"));
    scene.server().releasePolls();
    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_EQ(1U, scene.server().uploads().size());
    EXPECT_THAT(scene.messageTypes(),
                ElementsAre("connect", "collector:feedback", "collector:finish", "disconnect"));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InterruptTest, CancelInTheAnswerToThePollEndsTheCollectionThatHoldsUpTheStop) {
    AgentScene scene(withPollsThatOnlyTheTestAnswers());
    AgentProcess agent(scene.launch());
    scene.server().send(messages::startCollection("run", "-r\nx\ncontrol", ""));
    ASSERT_TRUE(scene.server().waitForOutput("run", Channel::Feedback, "<ready/>"));
    ASSERT_TRUE(scene.server().waitForHeldPolls());
    agent.sendSignal(SIGINT);
    ASSERT_TRUE(agent.waitUntilDelivered(SIGINT));

    scene.server().send(messages::cancel());

    EXPECT_EQ("code 0", scene.outcome("run"));
    // The poll that follows may have been asked for before the agent has seen the signal.
    scene.server().releasePolls();
    EXPECT_TRUE(scene.server().waitForMessage("disconnect"));
    scene.server().releasePolls();
    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_EQ("command: cancel\n", scene.output("run"));
    EXPECT_EQ(1U, scene.server().count("collector:operations:cancelled"));
    EXPECT_EQ(1U, scene.server().count("disconnect"));
    EXPECT_THAT(leftChildren(), IsEmpty());
}

TEST(InterruptTest, InterruptFromTheTerminalReachesTheCollectorTooAndItsTracesArrive) {
    AgentScene scene;
    AgentProcess agent(scene.launch());
    scene.server().send(
        messages::startCollection("run", "-r\nx\nuntil\n2\ntrace\ndata.0/t\ny\nexit\n7", "traces"));
    ASSERT_TRUE(scene.server().waitForOutput("run", Channel::Feedback, "<ready/>"));

    agent.sendSignalToGroup(SIGINT);

    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_EQ("signal: 2\n", scene.output("run"));
    EXPECT_EQ("code 7", scene.outcome("run"));
    EXPECT_EQ(1U, scene.server().uploads().size());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InterruptTest, SecondInterruptChangesNothing) {
    AgentScene scene(withPollsThatOnlyTheTestAnswers());
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.server().waitForHeldPolls());
    agent.sendSignal(SIGINT);
    ASSERT_TRUE(scene.server().waitForMessage("disconnect"));

    agent.sendSignal(SIGINT);

    ASSERT_TRUE(agent.waitUntilDelivered(SIGINT));
    scene.server().releasePolls();
    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_EQ(1U, scene.server().count("disconnect"));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InterruptTest, StopAfterAnInterruptChangesNothing) {
    AgentScene scene(withPollsThatOnlyTheTestAnswers());
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.server().waitForHeldPolls());
    agent.sendSignal(SIGINT);
    ASSERT_TRUE(scene.server().waitForMessage("disconnect"));

    EXPECT_EQ("exited with 0", scene.stop(agent));

    EXPECT_EQ(1U, scene.server().count("disconnect"));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InterruptTest, StormWhilePollingIsOneDisconnect) {
    AgentScene scene(withPollsThatOnlyTheTestAnswers());
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.server().waitForHeldPolls());

    for (int i = 0; i < kStormSignals; ++i) {
        agent.sendSignal(SIGINT);
    }

    ASSERT_TRUE(scene.server().waitForMessage("disconnect"));
    scene.server().releasePolls();
    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_EQ(1U, scene.server().count("disconnect"));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InterruptTest, StormThroughOperationsAndTheEndLosesNothing) {
    AgentScene scene;
    const auto leash = scene.makeLeash();
    AgentProcess agent(scene.launch());
    Commands commands;
    for (int i = 0; i < 10; ++i) {
        commands.push_back(messages::execute(
            "run-" + std::to_string(i), "fb started wait " + leash->path() + " lines out 500 x"));
    }
    scene.server().send(commands);
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(scene.server().waitForOutput("run-" + std::to_string(i), Channel::Feedback,
                                                 "started\n"));
    }
    agent.sendSignal(SIGINT);
    leash->release();

    while (agent.isRunning()) {
        agent.sendSignal(SIGINT);
        std::this_thread::yield();
    }

    EXPECT_EQ("exited with 0", agent.waitForEnd());
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ("code 0", scene.outcome("run-" + std::to_string(i)));
        EXPECT_EQ(numberedLines(500, "x"), scene.output("run-" + std::to_string(i)));
    }
    EXPECT_EQ(1U, scene.server().count("disconnect"));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InterruptTest, SignalAimedAtAnyThreadDoesNoHarm) {
    AgentScene scene;
    const auto leash = scene.makeLeash();
    AgentProcess agent(scene.launch());
    scene.server().send(messages::execute("run", "fb started wait " + leash->path() + " exit 8"));
    ASSERT_TRUE(scene.server().waitForOutput("run", Channel::Feedback, "started\n"));
    ASSERT_TRUE(scene.server().waitForHeldPolls());

    // One of them is the thread that takes the signal; with the others it stays.
    for (const pid_t thread : agent.threads()) {
        agent.sendSignalToThread(thread, SIGINT);
    }

    leash->release();
    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_EQ("code 8", scene.outcome("run"));
    EXPECT_EQ(1U, scene.server().count("disconnect"));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InterruptTest, AnswerToConnectTakesAnEarlierInterruptBack) {
    AgentScene scene;
    ProfilingServer& server = scene.server();
    server.answerWith([&server](const ServerMessage& message) -> std::optional<Commands> {
        if (message.type == "connect") {
            EXPECT_TRUE(server.waitForMessage("disconnect"));
        }
        return std::nullopt;
    });
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(server.waitForMessage("connect"));

    agent.sendSignal(SIGINT);

    EXPECT_EQ("code 3", scene.run(messages::execute("run", "exit 3")));
    agent.sendSignal(SIGINT);
    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_THAT(scene.messageTypes(),
                ElementsAre("connect", "disconnect", "collector:finish", "disconnect"));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(leftChildren(), IsEmpty());
}

/// Starts agents, interrupts each at a random moment and tells what came of it.
class InterruptedStartTest : public testing::TestWithParam<int> {
protected:
    /// How long it takes until an agent that nobody disturbs asks for work.
    Clock::duration measureStart() {
        begin = scene.server().transcript().size();
        const Clock::time_point launched = Clock::now();
        AgentProcess agent(scene.launch());
        EXPECT_TRUE(lookUntil([&] { return countSinceStart("commands:get") > 0; }));
        const Clock::duration duration = Clock::now() - launched;
        EXPECT_EQ("exited with 0", scene.stop(agent));
        return duration;
    }

    /// Number of threads of an agent whose connection has failed: all but that of the connection.
    std::size_t countThreadsWithoutConnection() {
        SceneSettings settings;
        settings.server.answerConnect = false;
        AgentScene other(settings);
        AgentProcess agent(other.launch());
        agent.waitForOutput("in:  {\"messages\":[]}\n");
        agent.sendSignal(SIGINT);
        EXPECT_TRUE(other.server().waitForMessage("disconnect"));
        agent.sendSignal(SIGINT);
        EXPECT_TRUE(agent.waitUntilDelivered(SIGINT));
        return agent.threads().size();
    }

    std::size_t countSinceStart(const std::string& type) {
        const auto transcript = scene.server().transcript();
        std::size_t count = 0;
        for (std::size_t i = begin; i < transcript.size(); ++i) {
            count += transcript[i].message.type == type ? 1U : 0U;
        }
        return count;
    }

    /// Whether polls follow the "disconnect": one may have been on its way, a second is not.
    bool isTakenBack() {
        const auto transcript = scene.server().transcript();
        std::size_t polls = 0;
        bool disconnected = false;
        for (std::size_t i = begin; i < transcript.size(); ++i) {
            polls += disconnected && transcript[i].message.type == "commands:get" ? 1U : 0U;
            disconnected = disconnected || transcript[i].message.type == "disconnect";
        }
        return polls > 1;
    }

    std::string interruptAfter(Clock::duration moment) {
        begin = scene.server().transcript().size();
        AgentProcess agent(scene.launch());
        std::this_thread::sleep_for(moment);
        agent.sendSignal(SIGINT);
        bool takenBack = false;
        bool failed = false;
        EXPECT_TRUE(lookUntil([&] {
            if (!agent.isRunning() || countSinceStart("disconnect") == 0) {
                return !agent.isRunning();
            }
            failed = agent.threads().size() <= threadsWithoutConnection;
            takenBack = isTakenBack();
            return failed || takenBack;
        }));
        std::string result;
        if (takenBack) {
            agent.sendSignal(SIGINT);
            result = "taken back, ";
        } else if (failed && agent.isRunning()) {
            agent.sendSignal(SIGTERM);
        }
        result += agent.waitForEnd();
        EXPECT_EQ("", agent.errors());
        return result;
    }

    AgentScene scene;
    std::size_t threadsWithoutConnection = 0;
    std::size_t begin = 0;  // of the current agent's messages in the transcript
};

TEST_P(InterruptedStartTest, IsOrderlyAtAnyMoment) {
    constexpr int kStarts = 50;
    const unsigned seed = std::random_device{}();
    std::cout << "seed " << seed << "\n";
    std::mt19937 random(seed);
    threadsWithoutConnection = countThreadsWithoutConnection();
    // The first start may be slower than those that follow.
    measureStart();
    std::uniform_int_distribution<Clock::rep> moments(0, measureStart().count() * 3 / 2);
    std::map<std::string, int> results;

    for (int i = 0; i < kStarts; ++i) {
        const std::string result = interruptAfter(Clock::duration(moments(random)));

        ++results[result];
        if (result == "killed by signal 2") {
            // The program had not yet taken charge of the signal.
            EXPECT_EQ(0U, countSinceStart("connect"));
        } else if (result == "exited with 0" || result == "killed by signal 15") {
            EXPECT_EQ(1U, countSinceStart("connect"));
            EXPECT_EQ(1U, countSinceStart("disconnect"));
        } else {
            // "connected" came after the interrupt.
            EXPECT_EQ("taken back, exited with 0", result);
            EXPECT_EQ(2U, countSinceStart("disconnect"));
        }
    }

    for (const auto& [result, times] : results) {
        std::cout << times << " times " << result << "\n";
    }
    EXPECT_LT(0, results["exited with 0"] + results["taken back, exited with 0"]);
}

// Four parts, so that they run side by side.
INSTANTIATE_TEST_SUITE_P(InterruptTest, InterruptedStartTest, testing::Range(1, 5));

TEST(InterruptTest, ProcessLivesOnWhenTheServerIsGone) {
    SceneSettings settings;
    settings.throughRelay = true;
    AgentScene scene(settings);
    AgentProcess agent(scene.launch());
    EXPECT_EQ("code 0", scene.run(messages::execute("run", "out x")));
    ASSERT_TRUE(scene.server().waitForHeldPolls());
    scene.relay().cut();
    ASSERT_TRUE(agent.waitForErrors("Recv failure: Connection reset by peer"));

    agent.sendSignal(SIGINT);

    EXPECT_TRUE(agent.waitForErrors("Couldn't connect to server"));
    // The second signal is let in when the first has been dealt with.
    agent.sendSignal(SIGINT);
    ASSERT_TRUE(agent.waitUntilDelivered(SIGINT));
    EXPECT_TRUE(agent.isRunning());
    agent.sendSignal(SIGTERM);
    EXPECT_EQ("killed by signal 15", agent.waitForEnd());
    EXPECT_EQ(0U, scene.server().count("disconnect"));
    EXPECT_THAT(leftChildren(), IsEmpty());
}

TEST(InterruptTest, CollectionEndsAndTheProcessStaysWhenTheServerIsGone) {
    SceneSettings settings;
    settings.throughRelay = true;
    AgentScene scene(settings);
    const auto leash = scene.makeLeash();
    AgentProcess agent(scene.launch());
    scene.server().send(messages::startCollection(
        "run", "-r\nx\nfb\nstarted\nwait\n" + leash->path() + "\ntrace\ndone\nx", ""));
    ASSERT_TRUE(scene.server().waitForOutput("run", Channel::Feedback, "started\n"));
    scene.relay().cut();
    ASSERT_TRUE(agent.waitForErrors("Recv failure: Connection reset by peer"));

    agent.sendSignal(SIGINT);
    ASSERT_TRUE(agent.waitUntilDelivered(SIGINT));
    leash->release();

    // The failed end, the failed report of that failure, and the failed "disconnect".
    EXPECT_TRUE(agent.waitForOutput("out: {\"messageType\":\"disconnect\""));
    agent.sendSignal(SIGINT);
    ASSERT_TRUE(agent.waitUntilDelivered(SIGINT));
    EXPECT_TRUE(agent.isRunning());
    EXPECT_THAT(agent.output(), HasSubstr("out: {\"messageType\":\"collector:finish\""));
    agent.sendSignal(SIGTERM);
    EXPECT_EQ("killed by signal 15", agent.waitForEnd());
    EXPECT_THAT(leftChildren(), IsEmpty());
}

TEST(InterruptTest, RefusedConnectionIsSilentAndStillDisconnectsOnce) {
    SceneSettings settings;
    settings.server.answerConnect = false;
    AgentScene scene(settings);
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(agent.waitForOutput("in:  {\"messages\":[]}\n"));

    agent.sendSignal(SIGINT);

    ASSERT_TRUE(scene.server().waitForMessage("disconnect"));
    agent.sendSignal(SIGINT);
    ASSERT_TRUE(agent.waitUntilDelivered(SIGINT));
    EXPECT_TRUE(agent.isRunning());
    agent.sendSignal(SIGTERM);
    EXPECT_EQ("killed by signal 15", agent.waitForEnd());
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.messageTypes(), ElementsAre("connect", "disconnect"));
    EXPECT_EQ(0U, scene.server().count("commands:get"));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InterruptTest, UnreachableServerLeavesTheProcessWaitingForASignal) {
    SceneSettings settings;
    settings.throughRelay = true;
    AgentScene scene(settings);
    scene.relay().cut();
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(agent.waitForErrors("Couldn't connect to server"));

    agent.sendSignal(SIGINT);

    ASSERT_TRUE(agent.waitForOutput("out: {\"messageType\":\"disconnect\""));
    agent.sendSignal(SIGINT);
    ASSERT_TRUE(agent.waitUntilDelivered(SIGINT));
    EXPECT_TRUE(agent.isRunning());
    agent.sendSignal(SIGTERM);
    EXPECT_EQ("killed by signal 15", agent.waitForEnd());
    EXPECT_THAT(agent.output(), testing::Not(HasSubstr("in:  ")));
}

TEST(InterruptTest, TerminationKeepsItsDefaultAction) {
    AgentScene scene;
    AgentProcess agent(scene.launch());
    EXPECT_EQ("code 0", scene.run(messages::execute("run", "out x")));

    agent.sendSignal(SIGTERM);

    EXPECT_EQ("killed by signal 15", agent.waitForEnd());
    EXPECT_EQ(0U, scene.server().count("disconnect"));
    EXPECT_THAT(leftChildren(), IsEmpty());
}

TEST(InterruptTest, InterruptWhileAnInstallationIsHeldWaitsForIt) {
    SceneSettings settings;
    settings.installed = false;
    settings.throughRelay = true;
    AgentScene scene(settings);
    scene.offer("package-x86.tar", {});
    scene.offer("package-x64.tar", {});
    scene.relay().treat([](const std::string& request) {
        return request.find("target-package") == std::string::npos ? Treatment::Pass
                                                                   : Treatment::Hold;
    });
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.relay().waitForHeld(1));
    scene.server().send(messages::execute("run", "exit 3"));
    ASSERT_TRUE(scene.server().waitForMessage("commands:get", 2));

    agent.sendSignal(SIGINT);
    ASSERT_TRUE(agent.waitUntilDelivered(SIGINT));
    EXPECT_TRUE(agent.isRunning());
    scene.relay().release();

    EXPECT_EQ("code 3", scene.outcome("run"));
    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_THAT(scene.messageTypes(), ElementsAre("connect", "collector:finish", "disconnect"));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

struct Inheritance {
    std::string name;
    std::vector<int> ignored;
    std::vector<int> blocked;
};

void PrintTo(const Inheritance& inheritance, std::ostream* stream) {
    *stream << inheritance.name;
}

class InheritedDispositionTest : public testing::TestWithParam<Inheritance> {};

TEST_P(InheritedDispositionTest, InterruptEndsTheAgentAndExitCodesArrive) {
    AgentScene scene;
    AgentLaunch launch = scene.launch();
    launch.ignoredSignals = GetParam().ignored;
    launch.blockedSignals = GetParam().blocked;
    AgentProcess agent(launch);
    EXPECT_EQ("code 7", scene.run(messages::execute("run", "exit 7")));

    agent.sendSignal(SIGINT);

    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_EQ(1U, scene.server().count("disconnect"));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

std::string nameOfCase(const testing::TestParamInfo<Inheritance>& caseInfo) {
    return caseInfo.param.name;
}

INSTANTIATE_TEST_SUITE_P(InterruptTest, InheritedDispositionTest,
                         testing::Values(Inheritance{"Ignored", {SIGINT}, {}},
                                         Inheritance{"Blocked", {}, {SIGINT}},
                                         Inheritance{"ChildSignalIgnored", {SIGCHLD}, {}},
                                         Inheritance{"ChildSignalBlocked", {}, {SIGCHLD}},
                                         Inheritance{"Everything",
                                                     {SIGINT, SIGCHLD, SIGPIPE, SIGTERM},
                                                     {SIGINT, SIGCHLD, SIGPIPE, SIGTERM}}),
                         nameOfCase);

}  // namespace
}  // namespace kolvan::test
