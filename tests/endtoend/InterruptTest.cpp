#include "tests/endtoend/AgentScene.h"
#include "tests/support/Gate.h"
#include "tests/support/PlainTransfer.h"
#include "tests/support/SystemCalls.h"

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <sys/syscall.h>

namespace kolvan::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using Clock = std::chrono::steady_clock;
using Commands = std::vector<AgentMessage>;

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
    server.answerWith([&server](const AgentMessage& message) -> std::optional<Commands> {
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

/// An agent that is followed from one system call of its main thread to the next. Its server
/// answers the announcement when a "disconnect" has come: what an interrupt leads to does not
/// depend on who is faster.
class InterruptedStart {
public:
    InterruptedStart() {
        scene.server().answerWith([this](const AgentMessage& message) -> std::optional<Commands> {
            if (message.type == "connect") {
                EXPECT_TRUE(scene.server().waitForMessage("disconnect"));
            }
            return std::nullopt;
        });
        AgentLaunch launch = scene.launch();
        launch.traced = true;
        agent.emplace(launch);
        calls.emplace(agent->pid());
    }

    /// Goes on to the moment at which the program takes charge of the signal.
    void goToHandler() {
        do {
            calls->advance();
        } while (calls->number() != SYS_rt_sigaction || calls->argument() != SIGINT);
    }

    /// Goes on to the next call.
    /// @return false when it is the last one: the wait for the agent's end
    bool goOn() {
        calls->advance();
        // What the program waits on for its end is made last.
        lastThreadIsNear = lastThreadIsNear || calls->number() == SYS_eventfd2;
        return !lastThreadIsNear || calls->number() != SYS_futex;
    }

    void interrupt() {
        agent->sendSignal(SIGINT);
        calls.reset();
    }

    AgentScene scene;
    std::optional<AgentProcess> agent;

private:
    std::optional<SystemCalls> calls;
    bool lastThreadIsNear = false;
};

TEST(InterruptTest, InterruptBeforeTheProgramTakesChargeEndsIt) {
    InterruptedStart start;

    start.interrupt();

    EXPECT_EQ("killed by signal 2", start.agent->waitForEnd());
    EXPECT_THAT(start.scene.messageTypes(), IsEmpty());
}

class InterruptedStartTest : public testing::TestWithParam<int> {};

// How many tests share the moments: they run side by side.
constexpr int kShares = 8;

TEST_P(InterruptedStartTest, EveryMomentLeadsToADisconnectAndNoHarm) {
    int interrupted = 0;
    for (int moment = GetParam();; moment += kShares) {
        InterruptedStart start;
        start.goToHandler();
        bool goesOn = true;
        for (int call = 0; goesOn && call < moment; ++call) {
            goesOn = start.goOn();
        }

        start.interrupt();

        SCOPED_TRACE(moment);
        ASSERT_TRUE(start.scene.server().waitForHeldPolls());
        // The answer to the announcement has taken the stop back. Now there is nothing to do so.
        start.agent->sendSignal(SIGINT);
        EXPECT_EQ("exited with 0", start.agent->waitForEnd());
        EXPECT_EQ(1U, start.scene.server().count("connect"));
        EXPECT_EQ(2U, start.scene.server().count("disconnect"));
        EXPECT_EQ("", start.agent->errors());
        EXPECT_THAT(leftChildren(), IsEmpty());
        ++interrupted;
        if (!goesOn) {
            break;
        }
    }
    EXPECT_LT(1, interrupted);
}

INSTANTIATE_TEST_SUITE_P(InterruptTest, InterruptedStartTest, testing::Range(0, kShares));

TEST(InterruptTest, ExitWaitsForTheInterruptThatIsBeingDealtWith) {
    AgentScene scene(withPollsThatOnlyTheTestAnswers());
    ProfilingServer& server = scene.server();
    Gate answer;
    server.answerWith([&answer](const AgentMessage& message) -> std::optional<Commands> {
        if (message.type == "disconnect") {
            answer.wait();
        }
        return std::nullopt;
    });
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(server.waitForHeldPolls());
    agent.sendSignal(SIGINT);
    ASSERT_TRUE(server.waitForMessage("disconnect"));
    const std::size_t threads = agent.threads().size();
    server.releasePolls();
    // The connection's thread goes, and then there is nothing else that keeps the main thread.
    EXPECT_TRUE(lookUntil([&] { return !agent.isRunning() || agent.threads().size() < threads; }));

    EXPECT_TRUE(agent.isRunning());
    answer.open();

    EXPECT_EQ("exited with 0", agent.waitForEnd());
    const std::string reply = "in:  {\"messages\":[]}\n";
    EXPECT_TRUE(agent.output().ends_with(reply + reply)) << agent.output();
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(InterruptTest, ProcessLivesOnWhenTheServerIsGone) {
    SceneSettings settings;
    settings.throughRelay = true;
    AgentScene scene(settings);
    AgentProcess agent(scene.launch());
    EXPECT_EQ("code 0", scene.run(messages::execute("run", "out x")));
    ASSERT_TRUE(scene.server().waitForHeldPolls());
    scene.relay().cut();
    ASSERT_TRUE(agent.waitForErrors(reportOfAReset()));

    agent.sendSignal(SIGINT);

    EXPECT_TRUE(agent.waitForErrors(curl_easy_strerror(CURLE_COULDNT_CONNECT)));
    // The second signal is let in when the first has been dealt with.
    agent.sendSignal(SIGINT);
    ASSERT_TRUE(agent.waitUntilDelivered(SIGINT));
    EXPECT_TRUE(agent.isRunning());
    agent.sendSignal(SIGTERM);
    EXPECT_EQ("killed by signal 15", agent.waitForEnd());
    EXPECT_EQ(0U, scene.server().count("disconnect"));
    EXPECT_THAT(leftChildren(), IsEmpty());
}

TEST(InterruptTest, DisconnectThatBreaksOffIsNoHindranceToAnOrderlyEnd) {
    SceneSettings settings = withPollsThatOnlyTheTestAnswers();
    settings.throughRelay = true;
    AgentScene scene(settings);
    scene.relay().treat([](const std::string& request) {
        const bool breaksOff = request.find("\"messageType\":\"disconnect\"") != std::string::npos;
        return breaksOff ? Treatment::Reset : Treatment::Pass;
    });
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.server().waitForHeldPolls());

    agent.sendSignal(SIGINT);
    ASSERT_TRUE(agent.waitForErrors(reportOfAReset()));
    scene.server().releasePolls();

    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_THAT(scene.messageTypes(), ElementsAre("connect"));
    EXPECT_EQ(1U, scene.server().count("commands:get"));
    EXPECT_EQ(reportOfAReset(), agent.errors());
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
    ASSERT_TRUE(agent.waitForErrors(reportOfAReset()));

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
    ASSERT_TRUE(agent.waitForErrors(curl_easy_strerror(CURLE_COULDNT_CONNECT)));

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
