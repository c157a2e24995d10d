#include "tests/endtoend/AgentScene.h"
#include "tests/support/FailingCall.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <optional>
#include <string>
#include <vector>

// An interrupt while the agent is busy with having been accepted: it makes the target directory,
// and that is held.

namespace kolvan::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Commands = std::vector<AgentMessage>;

SceneSettings withoutCollector() {
    SceneSettings settings;
    settings.installed = false;
    return settings;
}

class InterruptedAcceptanceTest : public testing::Test {
protected:
    InterruptedAcceptanceTest() {
        scene.offer("package-x86.tar", {});
        scene.offer("package-x64.tar", {});
    }

    /// Starts the agent and waits until it makes the target directory.
    void startUntilHeld() {
        AgentLaunch launch = scene.launch();
        makingOfTarget.applyTo(launch);
        agent.emplace(launch);
        ASSERT_TRUE(lookUntil([&] { return makingOfTarget.reached(); }));
    }

    void interrupt() { agent->sendSignal(SIGINT); }

    void expectOrderlyEnd() {
        EXPECT_EQ("exited with 0", agent->waitForEnd());
        EXPECT_EQ(notFoundLine(), agent->errors());
        EXPECT_EQ(0U, scene.server().count("error"));
        EXPECT_THAT(leftChildren(), IsEmpty());
    }

    /// The acceptance is completed, and the agent neither asks for commands nor ends: it has been
    /// told to stop before it was connected.
    void expectToBeLeftWaiting() {
        ASSERT_TRUE(lookUntil([&] { return scene.server().packageRequests().size() == 2; }));
        EXPECT_TRUE(agent->isRunning());
        agent->sendSignal(SIGTERM);
        EXPECT_EQ("killed by signal 15", agent->waitForEnd());
        EXPECT_EQ(0U, scene.server().count("commands:get"));
        EXPECT_EQ(0U, scene.server().count("error"));
        EXPECT_THAT(leftChildren(), IsEmpty());
    }

    std::string notFoundLine() const {
        return "kolvan-trcap is not found in " + scene.installation.target().string() + "\n";
    }

    AgentScene scene{withoutCollector()};
    FailingCall makingOfTarget{"mkdir", FailingCall::kHold, 1};
    std::optional<AgentProcess> agent;
};

TEST_F(InterruptedAcceptanceTest, SaysDisconnectOnceAndLeavesTheAgentWaiting) {
    ASSERT_NO_FATAL_FAILURE(startUntilHeld());

    interrupt();

    ASSERT_TRUE(scene.server().waitForMessage("disconnect"));
    interrupt();
    ASSERT_TRUE(agent->waitUntilDelivered(SIGINT));
    makingOfTarget.release();
    expectToBeLeftWaiting();
    EXPECT_THAT(scene.messageTypes(), ElementsAre("connect", "disconnect"));
}

TEST_F(InterruptedAcceptanceTest, StormOfInterruptsDoesNoMoreThanOne) {
    ASSERT_NO_FATAL_FAILURE(startUntilHeld());

    for (int i = 0; i < 10'000; ++i) {
        interrupt();
    }
    ASSERT_TRUE(scene.server().waitForMessage("disconnect"));
    makingOfTarget.release();

    expectToBeLeftWaiting();
    EXPECT_THAT(scene.messageTypes(), ElementsAre("connect", "disconnect"));
}

// "connected" takes the first stop back; the second one comes while that is handled.
TEST_F(InterruptedAcceptanceTest, InterruptBeforeTheAnswerIsTakenBackByItAndTheNextOneIsNot) {
    scene.server().answerWith([this](const AgentMessage& message) -> std::optional<Commands> {
        if (message.type == "connect") {
            EXPECT_TRUE(scene.server().waitForMessage("disconnect"));
        }
        return std::nullopt;
    });
    AgentLaunch launch = scene.launch();
    makingOfTarget.applyTo(launch);
    agent.emplace(launch);
    ASSERT_TRUE(scene.server().waitForMessage("connect"));
    interrupt();
    ASSERT_TRUE(lookUntil([&] { return makingOfTarget.reached(); }));

    interrupt();

    ASSERT_TRUE(scene.server().waitForMessage("disconnect", 2));
    makingOfTarget.release();
    expectToBeLeftWaiting();
    EXPECT_THAT(scene.messageTypes(), ElementsAre("connect", "disconnect", "disconnect"));
}

TEST_F(InterruptedAcceptanceTest, AgentThatIsLeftAloneGoesOnWhenTheDirectoryIsThere) {
    ASSERT_NO_FATAL_FAILURE(startUntilHeld());
    makingOfTarget.release();

    EXPECT_EQ("code 3", scene.run(messages::execute("run", "exit 3")));

    interrupt();
    expectOrderlyEnd();
    EXPECT_THAT(scene.messageTypes(), ElementsAre("connect", "collector:finish", "disconnect"));
}

}  // namespace
}  // namespace kolvan::test
