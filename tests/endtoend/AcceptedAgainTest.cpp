#include "tests/endtoend/AgentScene.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

// A server may accept an agent that it has accepted before. Everything that runs then is still the
// agent's own: it can be commanded, cancelled and waited for.

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::IsEmpty;

using Commands = std::vector<AgentMessage>;

/// What a file of /proc says; nothing when what it tells of is gone.
std::string textOf(const fs::path& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

/// Number of processes of the agent's group that run a collection now.
int runningCollections(pid_t group) {
    int count = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
        const std::string number = entry.path().filename();
        if (number.find_first_not_of("0123456789") == std::string::npos &&
            ::getpgid(std::stoi(number)) == group) {
            const std::string commandLine = textOf(entry.path() / "cmdline");  // none of a zombie
            count += commandLine.find("--option-file") != std::string::npos ? 1 : 0;
        }
    }
    return count;
}

/// Sends commands and waits until the agent has handled them and asks for more.
bool deliver(AgentScene& scene, const Commands& commands) {
    if (!scene.server().waitForHeldPolls()) {
        return false;
    }
    const std::size_t polls = scene.server().count("commands:get");
    scene.server().send(commands);
    return scene.server().waitForMessage("commands:get", polls + 1);
}

SceneSettings observedBy(std::function<void(const AgentMessage&)> onMessage) {
    SceneSettings settings;
    settings.server.observer.onMessage = std::move(onMessage);
    return settings;
}

/// An agent that is accepted again while a collection runs.
class AcceptedAgainTest : public testing::Test {
protected:
    /// Starts a collection that does what the lines say, of which one makes it say that it is
    /// ready, and lets the server accept the agent again.
    void acceptDuring(const std::string& lines) {
        agentGroup = agent.pid();
        scene.server().send(messages::startCollection("collection", "-r\nx\n" + lines, ""));
        ASSERT_TRUE(scene.server().waitForOutput("collection", Channel::Feedback, "<ready/>"));

        ASSERT_TRUE(deliver(scene, {messages::connected()}));
    }

    void expectOrderlyEnd(const std::string& ending) {
        EXPECT_EQ("exited with 0", ending);
        EXPECT_EQ(1U, scene.server().count("disconnect"));
        EXPECT_EQ(0U, scene.server().count("error"));
        EXPECT_EQ("", agent.errors());
        EXPECT_THAT(scene.problems(), IsEmpty());
    }

    std::atomic<pid_t> agentGroup{-1};
    std::atomic<int> collectionsWhenCancelled{-1};
    AgentScene scene{observedBy([this](const AgentMessage& message) {
        if (message.type == "collector:operations:cancelled") {
            collectionsWhenCancelled = runningCollections(agentGroup);
        }
    })};
    AgentProcess agent{scene.launch()};
};

TEST_F(AcceptedAgainTest, CancelEndsTheRunningCollectionBeforeItIsAnswered) {
    ASSERT_NO_FATAL_FAILURE(acceptDuring("control"));

    scene.server().send(messages::cancel());

    ASSERT_TRUE(scene.server().waitForMessage("collector:operations:cancelled"));
    EXPECT_EQ(0, collectionsWhenCancelled);
    EXPECT_EQ("code 0", scene.outcome("collection"));
    EXPECT_EQ("command: cancel\n", scene.output("collection"));
    expectOrderlyEnd(scene.stop(agent));
}

TEST_F(AcceptedAgainTest, CommandReachesTheRunningCollection) {
    ASSERT_NO_FATAL_FAILURE(acceptDuring("control"));

    ASSERT_EQ("code 0", scene.run(messages::collectionCommand("status", "status")));
    ASSERT_EQ("code 0", scene.run(messages::collectionCommand("stop", "stop")));

    EXPECT_EQ("passed: status\n", scene.output("status"));
    EXPECT_EQ("code 0", scene.outcome("collection"));
    EXPECT_EQ("command: status\ncommand: stop\n", scene.output("collection"));
    expectOrderlyEnd(scene.stop(agent));
}

TEST_F(AcceptedAgainTest, SecondStartIsRefusedAndStartsNothing) {
    ASSERT_NO_FATAL_FAILURE(acceptDuring("control"));

    ASSERT_EQ("error: Collection is already running",
              scene.run(messages::startCollection("second", "-r\nx\nout\nsecond", "")));

    EXPECT_EQ(1, runningCollections(agentGroup));
    EXPECT_EQ("", scene.output("second"));
    ASSERT_EQ("code 0", scene.run(messages::collectionCommand("stop", "stop")));
    EXPECT_EQ("code 0", scene.outcome("collection"));
    EXPECT_EQ("command: stop\n", scene.output("collection"));
    EXPECT_EQ("code 5", scene.run(messages::startCollection("third", "-r\nx\nexit\n5", "")));
    expectOrderlyEnd(scene.stop(agent));
}

TEST_F(AcceptedAgainTest, StopWaitsForTheRunningCollectionAndThenEndsTheAgent) {
    const auto leash = scene.makeLeash();
    ASSERT_NO_FATAL_FAILURE(acceptDuring("fb\n<ready/>\nwait\n" + leash->path() + "\nexit\n6"));

    scene.server().send(messages::stop());
    leash->release();

    EXPECT_EQ("code 6", scene.outcome("collection"));
    expectOrderlyEnd(agent.waitForEnd());
}

TEST_F(AcceptedAgainTest, StopInTheSameReplyEndsTheAgent) {
    const auto leash = scene.makeLeash();
    ASSERT_NO_FATAL_FAILURE(acceptDuring("fb\n<ready/>\nwait\n" + leash->path() + "\nexit\n6"));

    scene.server().send({messages::connected(), messages::stop()});
    leash->release();

    EXPECT_EQ("code 6", scene.outcome("collection"));
    expectOrderlyEnd(agent.waitForEnd());
}

TEST_F(AcceptedAgainTest, InterruptWaitsForTheRunningCollectionThatIsCancelledThroughThePoll) {
    ASSERT_NO_FATAL_FAILURE(acceptDuring("control"));
    ASSERT_TRUE(scene.server().waitForHeldPolls());
    agent.sendSignal(SIGINT);
    ASSERT_TRUE(agent.waitUntilDelivered(SIGINT));

    scene.server().send(messages::cancel());

    ASSERT_TRUE(scene.server().waitForMessage("collector:operations:cancelled"));
    EXPECT_EQ(0, collectionsWhenCancelled);
    EXPECT_EQ("code 0", scene.outcome("collection"));
    EXPECT_EQ("command: cancel\n", scene.output("collection"));
    expectOrderlyEnd(agent.waitForEnd());
}

TEST_F(AcceptedAgainTest, RunThatBeganBeforeIsCancelledToo) {
    agentGroup = agent.pid();
    scene.server().send(messages::execute("run", "hang"));
    ASSERT_TRUE(scene.server().waitForOutput("run", Channel::Feedback, "<ready/>"));
    ASSERT_TRUE(deliver(scene, {messages::connected()}));

    ASSERT_TRUE(deliver(scene, {messages::cancel()}));

    ASSERT_EQ("code 143", scene.outcome("run"));
    expectOrderlyEnd(scene.stop(agent));
}

/// What an agent says that finds nothing installed.
std::string nothingInstalled(const AgentScene& scene) {
    return "kolvan-trcap is not found in " + scene.installation.target().string() + "\n";
}

void offerBuild(AgentScene& scene, const std::string& build) {
    package::Content content;
    content.version = "build " + build + "\n";
    scene.offer("package-x86.tar", content);
    scene.offer("package-x64.tar", content);
}

TEST(AcceptedAgainWhileIdleTest, InstallsAgainWhenNoBuildIsAskedFor) {
    SceneSettings settings;
    settings.installed = false;
    AgentScene scene(settings);
    offerBuild(scene, "1");
    AgentProcess agent(scene.launch());
    ASSERT_EQ("code 0", scene.run(messages::execute("first", "--version")));
    offerBuild(scene, "2");

    ASSERT_TRUE(deliver(scene, {messages::connected()}));

    ASSERT_EQ("code 0", scene.run(messages::execute("second", "--version")));
    EXPECT_EQ("build 1\n", scene.output("first"));
    EXPECT_EQ("build 2\n", scene.output("second"));
    std::vector<std::string> packages;
    for (const PackageRequest& request : scene.server().packageRequests()) {
        packages.push_back(request.name);
    }
    EXPECT_THAT(packages, ElementsAre("package-x86.tar", "package-x64.tar", "package-x86.tar",
                                      "package-x64.tar"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ(nothingInstalled(scene), agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AcceptedAgainWhileIdleTest, InstallsAgainAfterACollectionHasEnded) {
    SceneSettings settings;
    settings.installed = false;
    AgentScene scene(settings);
    offerBuild(scene, "1");
    AgentProcess agent(scene.launch());
    ASSERT_EQ("code 4", scene.run(messages::startCollection("first", "-r\nx\nexit\n4", "")));
    offerBuild(scene, "2");

    ASSERT_TRUE(deliver(scene, {messages::connected()}));

    ASSERT_EQ("code 0", scene.run(messages::execute("version", "--version")));
    EXPECT_EQ("build 2\n", scene.output("version"));
    EXPECT_EQ("code 5", scene.run(messages::startCollection("second", "-r\nx\nexit\n5", "")));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ(nothingInstalled(scene), agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

/// The relay, as long as it is told to, keeps every package.
Treatment holdPackages(const std::string& request) {
    return request.find("target-package") == std::string::npos ? Treatment::Pass : Treatment::Hold;
}

/// Whether every thread of the agent waits for something.
bool isAtRest(const AgentProcess& agent) {
    for (const pid_t thread : agent.threads()) {
        const std::string state = textOf("/proc/" + std::to_string(agent.pid()) + "/task/" +
                                         std::to_string(thread) + "/stat");
        if (state.find(") S ") == std::string::npos) {
            return false;
        }
    }
    return true;
}

std::size_t countOf(const std::string& part, const std::string& text) {
    std::size_t count = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) {
        ++count;
    }
    return count;
}

TEST(AcceptedAgainWhileInstallingTest, SecondInstallationBeginsWhenTheFirstHasEnded) {
    SceneSettings settings;
    settings.installed = false;
    settings.throughRelay = true;
    AgentScene scene(settings);
    offerBuild(scene, "1");
    std::mutex downloadsMutex;
    std::vector<std::string> downloads;  // guarded by downloadsMutex; as they begin
    scene.relay().treat([&](const std::string& request) {
        const Treatment treatment = holdPackages(request);
        if (treatment == Treatment::Hold) {
            const std::lock_guard lock(downloadsMutex);
            downloads.push_back(request.find("x86") != std::string::npos ? "x86" : "x64");
        }
        return treatment;
    });
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.relay().waitForHeld(1));
    ASSERT_TRUE(scene.server().waitForHeldPolls());

    scene.server().send({messages::connected(), messages::execute("run", "--version")});

    // It has been told, and has done what it could.
    ASSERT_TRUE(lookUntil([&] { return countOf("\"connected\"", agent.output()) == 2; }));
    ASSERT_TRUE(lookUntil([&] { return isAtRest(agent); }));
    {
        const std::lock_guard lock(downloadsMutex);
        EXPECT_THAT(downloads, ElementsAre("x86"));
    }
    scene.relay().release();
    EXPECT_EQ("code 0", scene.outcome("run"));
    EXPECT_EQ("build 1\n", scene.output("run"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    {
        const std::lock_guard lock(downloadsMutex);
        EXPECT_THAT(downloads, ElementsAre("x86", "x64", "x86", "x64"));
    }
    EXPECT_THAT(scene.problems(), IsEmpty());
}

}  // namespace
}  // namespace kolvan::test
