#include "tests/endtoend/AgentScene.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kolvan::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Commands = std::vector<AgentMessage>;

/// Answers the first message of a type, and no other, with these commands.
ProfilingServer::Answer answerFirst(const std::string& type, const Commands& commands) {
    const auto answered = std::make_shared<std::atomic<bool>>(false);
    return [type, commands, answered](const AgentMessage& message) -> std::optional<Commands> {
        if (message.type != type || answered->exchange(true)) {
            return std::nullopt;
        }
        return commands;
    };
}

void offerPackages(AgentScene& scene) {
    scene.offer("package-x86.tar", {});
    scene.offer("package-x64.tar", {});
}

SceneSettings withHeldInstallation() {
    SceneSettings settings;
    settings.installed = false;
    settings.throughRelay = true;
    return settings;
}

Treatment holdPackages(const std::string& request) {
    return request.find("target-package") == std::string::npos ? Treatment::Pass : Treatment::Hold;
}

TEST(StopRoadTest, StopInTheReplyToAnOperationsOutput) {
    AgentScene scene;
    const auto leash = scene.makeLeash();
    scene.server().answerWith(answerFirst("collector:stdout", {messages::stop()}));
    AgentProcess agent(scene.launch());

    scene.server().send(
        messages::execute("run", "out early wait " + leash->path() + " out late exit 5"));

    ASSERT_TRUE(scene.server().waitForOutput("run", Channel::Stdout, "early\n"));
    leash->release();
    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_EQ("code 5", scene.outcome("run"));
    EXPECT_EQ("early\nlate\n", scene.output("run"));
    EXPECT_THAT(scene.messageTypes(), ElementsAre("connect", "collector:stdout", "collector:stdout",
                                                  "collector:finish", "disconnect"));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(StopRoadTest, StopInTheReplyToTheLastOutput) {
    AgentScene scene;
    scene.server().answerWith(answerFirst("collector:stdout", {messages::stop()}));
    AgentProcess agent(scene.launch());

    scene.server().send(messages::execute("run", "out x exit 5"));

    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_EQ("code 5", scene.outcome("run"));
    EXPECT_THAT(scene.messageTypes(),
                ElementsAre("connect", "collector:stdout", "collector:finish", "disconnect"));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(StopRoadTest, StopInTheReplyToAnOperationsEnd) {
    AgentScene scene;
    scene.server().answerWith(answerFirst("collector:finish", {messages::stop()}));
    AgentProcess agent(scene.launch());

    scene.server().send(messages::execute("run", "exit 5"));

    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_EQ("code 5", scene.outcome("run"));
    EXPECT_THAT(scene.messageTypes(), ElementsAre("connect", "collector:finish", "disconnect"));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(StopRoadTest, StopInEveryReplyOfManyOperationsIsOneStop) {
    AgentScene scene;
    scene.server().answerWith([](const AgentMessage& message) -> std::optional<Commands> {
        if (!message.parameters.contains("id")) {
            return std::nullopt;
        }
        return Commands{messages::stop(), messages::execute("late", "out x")};
    });
    AgentProcess agent(scene.launch());
    Commands commands;
    for (int i = 0; i < 20; ++i) {
        commands.push_back(messages::execute("run-" + std::to_string(i), "out a fb b err c"));
    }

    scene.server().send(commands);

    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_EQ(1U, scene.server().count("disconnect"));
    EXPECT_EQ("", agent.errors());
    // How many were launched before the stop is open; whatever was launched has ended.
    std::set<std::string> begun;
    std::set<std::string> ended;
    for (const auto& received : scene.server().transcript()) {
        const bool isEnd = received.message.type == "collector:finish";
        if (received.message.parameters.contains("id")) {
            (isEnd ? ended : begun).insert(received.message.parameter("id"));
        }
    }
    EXPECT_EQ(begun, ended);
    EXPECT_THAT(leftChildren(), IsEmpty());
}

TEST(StopRoadTest, CollectionIsCancelledThroughThePollAfterAStopInItsOutputsReply) {
    AgentScene scene;
    scene.server().answerWith(answerFirst("collector:feedback", {messages::stop()}));
    AgentProcess agent(scene.launch());
    scene.server().send(messages::startCollection("run", "-r\nx\ncontrol", ""));
    ASSERT_TRUE(scene.server().waitForOutput("run", Channel::Feedback, "<ready/>"));

    scene.server().send(messages::cancel());

    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_EQ("code 0", scene.outcome("run"));
    EXPECT_EQ("command: cancel\n", scene.output("run"));
    EXPECT_EQ(1U, scene.server().count("disconnect"));
    EXPECT_EQ(1U, scene.server().count("collector:operations:cancelled"));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(leftChildren(), IsEmpty());
}

TEST(StopRoadTest, CancelBehindTheStopInTheSameReplyIsCarriedOut) {
    AgentScene scene;
    scene.server().answerWith(
        answerFirst("collector:feedback", {messages::stop(), messages::cancel()}));
    AgentProcess agent(scene.launch());

    scene.server().send(messages::startCollection("run", "-r\nx\ncontrol", ""));

    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_EQ("code 0", scene.outcome("run"));
    EXPECT_EQ("command: cancel\n", scene.output("run"));
    EXPECT_EQ(1U, scene.server().count("disconnect"));
    EXPECT_EQ(1U, scene.server().count("collector:operations:cancelled"));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(leftChildren(), IsEmpty());
}

TEST(StopRoadTest, AnythingInARepliesWhileTheAgentStopsHarmsNobody) {
    AgentScene scene;
    const auto leash = scene.makeLeash();
    scene.server().answerWith([](const AgentMessage& message) -> std::optional<Commands> {
        if (message.type == "collector:stdout") {
            return Commands{messages::stop()};
        }
        if (message.type == "collector:stderr" || message.type == "collector:finish") {
            return Commands{messages::execute("late", "out x"),
                            messages::cancel(),
                            messages::stop(),
                            {"disconnected", {}},
                            {"error", {}}};
        }
        return std::nullopt;
    });
    AgentProcess agent(scene.launch());
    scene.server().send(
        messages::execute("run", "out stop wait " + leash->path() + " err more exit 5"));
    ASSERT_TRUE(scene.server().waitForOutput("run", Channel::Stdout, "stop\n"));

    leash->release();

    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_NE("not finished", scene.outcome("run"));
    EXPECT_EQ(1U, scene.server().count("disconnect"));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(leftChildren(), IsEmpty());
}

TEST(StopRoadTest, ConnectedAndStopInTheReplyToConnectAreAFailedConnection) {
    AgentScene scene;
    scene.server().answerWith(answerFirst("connect", {messages::connected(), messages::stop()}));
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.server().waitForMessage("disconnect"));
    ASSERT_TRUE(agent.waitForOutput("in:  {\"messages\":[]}\n"));

    agent.sendSignal(SIGINT);

    ASSERT_TRUE(agent.waitUntilDelivered(SIGINT));
    EXPECT_TRUE(agent.isRunning());
    agent.sendSignal(SIGTERM);
    EXPECT_EQ("killed by signal 15", agent.waitForEnd());
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.messageTypes(), ElementsAre("connect", "disconnect"));
    EXPECT_EQ(0U, scene.server().count("commands:get"));
}

TEST(StopRoadTest, ConnectedBehindAStopTakesItBack) {
    AgentScene scene;
    scene.server().answerWith(answerFirst("connect", {messages::stop(), messages::connected()}));
    AgentProcess agent(scene.launch());

    EXPECT_EQ("code 3", scene.run(messages::execute("run", "exit 3")));

    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.messageTypes(),
                ElementsAre("connect", "disconnect", "collector:finish", "disconnect"));
}

TEST(StopRoadTest, StopIsCarriedOutAfterTheOperationsOfItsReply) {
    AgentScene scene;
    AgentProcess agent(scene.launch());

    scene.server().send({messages::execute("one", "out x exit 1"),
                         messages::execute("two", "out y exit 2"), messages::stop(),
                         messages::execute("late", "out z")});

    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_EQ("code 1", scene.outcome("one"));
    EXPECT_EQ("code 2", scene.outcome("two"));
    EXPECT_EQ(2U, scene.server().count("collector:finish"));
    EXPECT_EQ(1U, scene.server().count("disconnect"));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(StopRoadTest, SecondStopOfAReplyIsIgnored) {
    AgentScene scene;
    AgentProcess agent(scene.launch());

    scene.server().send({messages::stop(), messages::stop(), messages::stop()});

    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_THAT(scene.messageTypes(), ElementsAre("connect", "disconnect"));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(StopRoadTest, ConnectedWhileIdleChangesNothingForOperations) {
    AgentScene scene;
    AgentProcess agent(scene.launch());
    EXPECT_EQ("code 1", scene.run(messages::execute("before", "exit 1")));

    scene.server().send(messages::connected());

    EXPECT_EQ("code 2", scene.run(messages::execute("after", "exit 2")));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(StopRoadTest, ConnectedWhileInstallingInstallsAgainAfterwards) {
    AgentScene scene(withHeldInstallation());
    offerPackages(scene);
    scene.relay().treat(holdPackages);
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.relay().waitForHeld(1));
    scene.server().send({messages::execute("one", "exit 1"), messages::connected(),
                         messages::execute("two", "exit 2")});
    ASSERT_TRUE(agent.waitForOutput("exit 2"));

    scene.relay().release();

    EXPECT_EQ("code 2", scene.outcome("two"));
    EXPECT_NE("not finished", scene.outcome("one"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    std::vector<std::string> names;
    for (const PackageRequest& request : scene.server().packageRequests()) {
        names.push_back(request.name);
    }
    EXPECT_THAT(names, ElementsAre("package-x86.tar", "package-x64.tar", "package-x86.tar",
                                   "package-x64.tar"));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(StopRoadTest, ConnectedWhileCollectingLeavesTheCollectionAlone) {
    AgentScene scene;
    const auto leash = scene.makeLeash();
    AgentProcess agent(scene.launch());
    scene.server().send(messages::startCollection(
        "run", "-r\nx\nfb\nstarted\nwait\n" + leash->path() + "\nexit\n4", ""));
    ASSERT_TRUE(scene.server().waitForOutput("run", Channel::Feedback, "started\n"));

    scene.server().send(messages::connected());

    EXPECT_EQ("code 2", scene.run(messages::execute("after", "exit 2")));
    leash->release();
    EXPECT_EQ("code 4", scene.outcome("run"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(StopRoadTest, ConnectedAfterTheDisconnectMakesTheAgentGoOnUntilItIsStoppedAgain) {
    AgentScene scene;
    scene.server().answerWith(answerFirst("disconnect", {messages::connected()}));
    AgentProcess agent(scene.launch());
    scene.server().send(messages::stop());
    ASSERT_TRUE(scene.server().waitForMessage("disconnect"));

    EXPECT_EQ("code 3", scene.run(messages::execute("run", "exit 3")));

    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.messageTypes(),
                ElementsAre("connect", "disconnect", "collector:finish", "disconnect"));
    EXPECT_THAT(leftChildren(), IsEmpty());
}

TEST(StopRoadTest, EndWaitsForAnInstallationThatIsHeldByTheServer) {
    AgentScene scene(withHeldInstallation());
    offerPackages(scene);
    scene.relay().treat(holdPackages);
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.relay().waitForHeld(1));
    scene.server().send(messages::stop());
    ASSERT_TRUE(scene.server().waitForMessage("disconnect"));
    EXPECT_TRUE(agent.isRunning());

    scene.relay().release();

    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_EQ(2U, scene.server().packageRequests().size());
    EXPECT_TRUE(
        std::filesystem::exists(scene.installation.target() / "collector/bin/kolvan-trcap"));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(StopRoadTest, OperationThatWaitsForTheInstallationHoldsUpTheDisconnect) {
    AgentScene scene(withHeldInstallation());
    offerPackages(scene);
    scene.relay().treat(holdPackages);
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.relay().waitForHeld(1));
    scene.server().send({messages::execute("run", "exit 3"), messages::stop()});
    ASSERT_TRUE(agent.waitForOutput("\"messageType\":\"stop\""));
    EXPECT_EQ(0U, scene.server().count("disconnect"));

    scene.relay().release();

    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_THAT(scene.messageTypes(), ElementsAre("connect", "collector:finish", "disconnect"));
    EXPECT_EQ("code 3", scene.outcome("run"));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(StopRoadTest, FiftyLivesInOneInstallationAllEndInOrder) {
    AgentScene scene;
    for (int i = 0; i < 50; ++i) {
        AgentProcess agent(scene.launch());
        ASSERT_EQ("exited with 0", scene.stop(agent));
        ASSERT_EQ("", agent.errors());
    }

    EXPECT_EQ(50U, scene.server().count("connect"));
    EXPECT_EQ(50U, scene.server().count("disconnect"));
    EXPECT_THAT(leftChildren(), IsEmpty());
}

}  // namespace
}  // namespace kolvan::test
