#include "tests/endtoend/AgentScene.h"
#include "tests/support/PlainTransfer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <iterator>
#include <ostream>
#include <string>
#include <vector>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

using testing::IsEmpty;
using testing::SizeIs;

constexpr int kTraces = 20;

/// A whole life: packages are installed, a collection runs and its traces are uploaded.
SceneSettings wholeLife() {
    SceneSettings settings;
    settings.installed = false;
    return settings;
}

void offerPackages(AgentScene& scene) {
    scene.offer("package-x86.tar", {});
    scene.offer("package-x64.tar", {});
}

AgentMessage collection() {
    std::string options = "-r\nx\nout\nhello\nerr\nwarning\nfb\n<progress/>";
    for (int i = 0; i < kTraces; ++i) {
        options += "\ntrace\ndata.0/" + std::to_string(i) + "\nmeasured";
    }
    return messages::startCollection("run", options + "\nexit\n3", "traces");
}

void expectWholeCollection(AgentScene& scene) {
    EXPECT_EQ("code 3", scene.run(collection()));
    EXPECT_EQ("hello\n", scene.output("run"));
    EXPECT_EQ("warning\n", scene.errors("run"));
    EXPECT_EQ("<progress/>\n", scene.feedback("run"));
    EXPECT_THAT(scene.server().uploads(), SizeIs(kTraces));
    for (const auto& upload : scene.server().uploads()) {
        EXPECT_EQ("measured", readFile(upload.storedPath));
    }
}

void expectPackagesUnharmed(const AgentScene& scene) {
    for (const char* name : {"package-x86.tar", "package-x64.tar"}) {
        EXPECT_TRUE(readFile(scene.installation.surroundings().path() / "packages" / name) ==
                    readFile(scene.installation.target() / name))
            << name;
    }
}

struct Closed {
    std::string name;
    std::vector<int> descriptors;
};

void PrintTo(const Closed& closed, std::ostream* stream) {
    *stream << closed.name;
}

std::string nameOfCase(const testing::TestParamInfo<Closed>& caseInfo) {
    return caseInfo.param.name;
}

class ClosedDescriptorTest : public testing::TestWithParam<Closed> {};

TEST_P(ClosedDescriptorTest, NothingIsWrittenWhereItDoesNotBelong) {
    AgentScene scene(wholeLife());
    offerPackages(scene);
    AgentLaunch launch = scene.launch();
    launch.closedDescriptors = GetParam().descriptors;
    AgentProcess agent(launch);

    expectWholeCollection(scene);

    EXPECT_EQ("exited with 0", scene.stop(agent));
    expectPackagesUnharmed(scene);
    EXPECT_THAT(scene.problems(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(AgentSurroundingsTest, ClosedDescriptorTest,
                         testing::Values(Closed{"Input", {0}}, Closed{"Output", {1}},
                                         Closed{"Errors", {2}}, Closed{"All", {0, 1, 2}}),
                         nameOfCase);

TEST(AgentSurroundingsTest, ReaderOfTheLogMayGoAway) {
    AgentScene scene(wholeLife());
    offerPackages(scene);
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(agent.waitForOutput("out: "));
    agent.stopReadingOutput();

    expectWholeCollection(scene);

    EXPECT_EQ("exited with 0", scene.stop(agent));
    expectPackagesUnharmed(scene);
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentSurroundingsTest, BrokenPipeSignalDoesNotEndTheAgent) {
    AgentScene scene;
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.server().waitForHeldPolls());

    for (int i = 0; i < 100; ++i) {
        agent.sendSignal(SIGPIPE);
    }

    EXPECT_EQ("code 3", scene.run(messages::execute("run", "exit 3")));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentSurroundingsTest, ServerThatResetsTheOutputOfOperationsDoesNotEndTheAgent) {
    SceneSettings settings;
    settings.throughRelay = true;
    AgentScene scene(settings);
    scene.relay().treat([](const std::string& request) {
        return request.find("collector:std") == std::string::npos ? Treatment::Pass
                                                                  : Treatment::Reset;
    });
    AgentProcess agent(scene.launch());
    std::vector<AgentMessage> commands;
    for (int i = 0; i < 20; ++i) {
        commands.push_back(messages::execute(std::to_string(i), "out x err y fb z exit 3"));
    }

    scene.server().send(commands);

    for (int i = 0; i < 20; ++i) {
        const std::string id = std::to_string(i);
        // A send that the operation's end makes itself fails the operation.
        EXPECT_THAT(scene.outcome(id), testing::AnyOf("code 3", "error: " + reportOfAReset()));
        EXPECT_EQ("", scene.output(id));
    }
    EXPECT_EQ("code 4", scene.run(messages::execute("quiet", "exit 4")));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ(1U, scene.server().count("disconnect"));
    EXPECT_THAT(leftChildren(), IsEmpty());
}

TEST(AgentSurroundingsTest, FailedEndOfAnOperationIsReportedAsItsError) {
    SceneSettings settings;
    settings.throughRelay = true;
    AgentScene scene(settings);
    scene.relay().treat([](const std::string& request) {
        return request.find("\"code\":\"") == std::string::npos ? Treatment::Pass
                                                                : Treatment::Reset;
    });
    AgentProcess agent(scene.launch());

    EXPECT_EQ("error: " + reportOfAReset(), scene.run(messages::execute("run", "out x exit 3")));

    EXPECT_EQ("x\n", scene.output("run"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    // Once by the transport, as it happens; the operation itself has nothing left to report.
    EXPECT_EQ(reportOfAReset(), agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentSurroundingsTest, OperationWhoseEndCannotBeReportedAtAllIsToldWhenTheAgentStops) {
    SceneSettings settings;
    settings.throughRelay = true;
    AgentScene scene(settings);
    scene.relay().treat([](const std::string& request) {
        return request.find("collector:finish") == std::string::npos ? Treatment::Pass
                                                                     : Treatment::Reset;
    });
    AgentProcess agent(scene.launch());
    scene.server().send(messages::execute("run", "out x exit 3"));
    const std::string failure = reportOfAReset();
    ASSERT_TRUE(agent.waitForErrors(failure + failure));
    EXPECT_EQ(failure + failure, agent.errors());

    EXPECT_EQ("exited with 0", scene.stop(agent));

    EXPECT_EQ(failure + failure + failure + "\n", agent.errors());
    EXPECT_EQ(0U, scene.server().count("collector:finish"));
    EXPECT_THAT(leftChildren(), IsEmpty());
}

TEST(AgentSurroundingsTest, StoppedAgentGoesOnWhereItWas) {
    AgentScene scene;
    const auto leash = scene.makeLeash();
    AgentProcess agent(scene.launch());
    scene.server().send(
        messages::execute("run", "out early wait " + leash->path() + " lines out 100 x exit 3"));
    ASSERT_TRUE(scene.server().waitForOutput("run", Channel::Stdout, "early\n"));
    agent.sendSignal(SIGSTOP);
    ASSERT_TRUE(waitUntilStoppedBySignal(agent.pid()));
    leash->release();
    scene.server().send(messages::execute("queued", "exit 4"));
    EXPECT_EQ(0U, scene.server().count("collector:finish"));

    agent.sendSignal(SIGCONT);

    EXPECT_EQ("code 3", scene.outcome("run"));
    EXPECT_EQ("early\n" + numberedLines(100, "x"), scene.output("run"));
    EXPECT_EQ("code 4", scene.outcome("queued"));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentSurroundingsTest, LimitOfDescriptorsIsNoObstacleToManyTraces) {
    AgentScene scene;
    AgentLaunch launch = scene.launch();
    launch.softDescriptorLimit = 64;
    AgentProcess agent(launch);
    std::string options = "-r\nx";
    for (int i = 0; i < 100; ++i) {
        options += "\ntrace\ndata.0/" + std::to_string(i) + "\nmeasured";
    }

    EXPECT_EQ("code 0", scene.run(messages::startCollection("run", options, "t")));

    EXPECT_THAT(scene.server().uploads(), SizeIs(100));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(AgentSurroundingsTest, NothingStaysOpenOrRunningAfterManyOperations) {
    AgentScene scene;
    AgentProcess agent(scene.launch());
    const auto countDescriptors = [&] {
        const fs::path directory = "/proc/" + std::to_string(agent.pid()) + "/fd";
        return std::distance(fs::directory_iterator(directory), fs::directory_iterator());
    };
    EXPECT_EQ("code 0", scene.run(messages::execute("first", "out x err y fb z")));
    ASSERT_TRUE(scene.server().waitForHeldPolls());
    const auto descriptors = countDescriptors();
    const std::size_t threads = agent.threads().size();
    std::vector<AgentMessage> commands;
    for (int i = 0; i < 200; ++i) {
        commands.push_back(messages::execute(std::to_string(i), "out x err y fb z"));
    }

    scene.server().send(commands);

    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ("code 0", scene.outcome(std::to_string(i)));
    }
    EXPECT_TRUE(lookUntil(
        [&] { return countDescriptors() <= descriptors && agent.threads().size() <= threads; }));
    EXPECT_EQ("exited with 0", scene.stop(agent));
    EXPECT_THAT(scene.problems(), IsEmpty());
}

}  // namespace
}  // namespace kolvan::test
