#include "tests/companions/check/CheckerRun.h"
#include "tests/endtoend/AgentScene.h"
#include "tests/support/Gate.h"
#include "tests/support/RawServer.h"

#include <gtest/gtest.h>

#include <csignal>
#include <optional>
#include <string>

namespace kolvan::test {
namespace {

/// Whether the checker calls the process alive. It watches for a second where there is no sign of
/// life, which no assertion depends on.
CheckerAnswer alive(const AgentInstallation& installation, const AgentProcess& agent,
                    std::vector<std::string> more = {"--seconds", "1"}) {
    more.insert(more.end(), {"--alive", std::to_string(agent.pid())});
    return runChecker(checkerLaunch(installation, more));
}

std::string sentence(const AgentProcess& agent, const std::string& rest) {
    return "Process " + std::to_string(agent.pid()) + " is " + rest + "\n";
}

std::string alone(const AgentProcess& agent, const std::string& server) {
    return sentence(agent,
                    "alone. In 1 second it had neither a connection nor a child process. Its "
                    "configuration names " +
                        server + ".");
}

TEST(AliveTest, AgentWhosePollIsHeldIsAlive) {
    AgentScene scene;
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.server().waitForHeldPolls());

    const CheckerAnswer answer = alive(scene.installation, agent);

    EXPECT_EQ("exited with 0", answer.ending);
    const std::string server = scene.server().endpoint();
    EXPECT_EQ(sentence(agent, "alive. It holds a connection to " +
                                  server.substr(std::string("http://").size()) +
                                  ". Its configuration names " + server + "."),
              answer.output);
    EXPECT_EQ("exited with 0", scene.stop(agent));
}

TEST(AliveTest, AgentThatWasRefusedAtStartIsAlone) {
    const RefusingPort port;
    const AgentInstallation installation;
    AgentSettings settings;
    settings.serverEndpoint = "http://" + port.host();
    installation.configure(settings.text());
    AgentProcess agent{AgentLaunch(installation)};
    ASSERT_TRUE(agent.waitForErrors("connect"));

    const CheckerAnswer answer = alive(installation, agent);

    EXPECT_EQ("exited with 1", answer.ending);
    EXPECT_EQ(alone(agent, settings.serverEndpoint), answer.output);
}

TEST(AliveTest, AgentThatTheServerDidNotAcceptIsAlone) {
    SceneSettings settings;
    settings.server.answerConnect = false;
    AgentScene scene(settings);
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(agent.waitForOutput("in:  "));

    const CheckerAnswer answer = alive(scene.installation, agent);

    EXPECT_EQ("exited with 1", answer.ending);
    EXPECT_EQ(alone(agent, scene.server().endpoint()), answer.output);
}

TEST(AliveTest, AgentThatHasLostItsServerIsAlone) {
    SceneSettings settings;
    settings.throughRelay = true;
    AgentScene scene(settings);
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.server().waitForHeldPolls());
    EXPECT_EQ("exited with 0", alive(scene.installation, agent).ending);

    scene.relay().cut();

    ASSERT_TRUE(agent.waitForErrors("eset"));  // "Connection reset by peer", in libcurl's words
    const CheckerAnswer answer = alive(scene.installation, agent);
    EXPECT_EQ("exited with 1", answer.ending);
    EXPECT_EQ(alone(agent, scene.relay().endpoint()), answer.output);
}

TEST(AliveTest, AgentWithoutServerIsAliveAsLongAsItHasChildren) {
    SceneSettings settings;
    settings.throughRelay = true;
    AgentScene scene(settings);
    const auto leash = scene.makeLeash();
    AgentProcess agent(scene.launch());
    scene.server().send(messages::execute("run", "out early wait " + leash->path() + " exit 3"));
    ASSERT_TRUE(scene.server().waitForOutput("run", Channel::Stdout, "early\n"));
    scene.relay().cut();
    ASSERT_TRUE(agent.waitForErrors("eset"));

    const CheckerAnswer during = alive(scene.installation, agent, {"--json"});

    EXPECT_EQ("exited with 0", during.ending);
    EXPECT_NE(std::string::npos, during.output.find("\"alive\":true,\"reason\":\"children\""))
        << during.output;
    leash->release();
    ASSERT_TRUE(agent.waitForErrors(" connect"));  // the end could not be reported
    EXPECT_EQ("exited with 1", alive(scene.installation, agent).ending);
}

TEST(AliveTest, AgentThatOnlyUploadsIsAlive) {
    SceneSettings settings;
    settings.throughRelay = true;
    AgentScene scene(settings);
    scene.relay().treat([](const std::string& request) {
        const bool upload = request.find("/trace/upload") != std::string::npos;
        const bool output = request.find("collector:stdout") != std::string::npos;
        return upload ? Treatment::Hold : output ? Treatment::Reset : Treatment::Pass;
    });
    AgentProcess agent(scene.launch());
    scene.server().send(
        messages::startCollection("run", "-r\nx\ntrace\ndata.0/one\nmeasured\nexit\n0", "traces"));
    ASSERT_TRUE(scene.relay().waitForHeld(1));

    const CheckerAnswer answer = alive(scene.installation, agent);

    EXPECT_EQ("exited with 0", answer.ending);
    EXPECT_NE(std::string::npos, answer.output.find("It holds a connection to ")) << answer.output;
    scene.relay().release();
}

TEST(AliveTest, AgentWhosePackageComesSlowlyIsAlive) {
    Gate gate;
    RawServer server([&gate](RawConnection& connection) {
        const std::string request = connection.readRequest();
        if (request.find("\"connect\"") != std::string::npos) {
            (void)connection.send(httpReply(200, R"({"messages":[{"messageType":"connected"}]})"));
        } else if (request.starts_with("GET ")) {
            (void)connection.send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nx");
            gate.open();
            connection.waitForPeerEnd();
        } else {
            // Without an element type the connection ends, and only the download is left.
            (void)connection.send(httpReply(200, R"({"messages":[{}]})"));
        }
    });
    const AgentInstallation installation;
    AgentSettings settings;
    settings.serverEndpoint = server.endpoint();
    installation.configure(settings.text());
    AgentProcess agent{AgentLaunch(installation)};
    gate.wait();

    EXPECT_EQ("exited with 0", alive(installation, agent).ending);
}

TEST(AliveTest, AgentWhosePollsAreAnsweredAtOnceIsAlive) {
    SceneSettings settings;
    settings.server.pollTimeout = std::chrono::milliseconds(0);
    AgentScene scene(settings);
    AgentProcess agent(scene.launch());

    for (std::size_t polls = 200; polls <= 2'000; polls += 200) {
        ASSERT_TRUE(scene.server().waitForMessage("commands:get", polls));
        const CheckerAnswer answer = alive(scene.installation, agent, {});
        EXPECT_EQ("exited with 0", answer.ending) << answer.output << answer.errors;
    }
    EXPECT_EQ("exited with 0", scene.stop(agent));
}

TEST(AliveTest, ServerIsNamedThoughTheAgentWasStartedByARelativePath) {
    const RefusingPort port;
    const AgentInstallation installation;
    AgentSettings settings;
    settings.serverEndpoint = "http://me:secret@" + port.host();
    installation.configure(settings.text());
    AgentLaunch launch(installation);
    launch.firstArgument = "./kolvan-agent";
    AgentProcess agent(launch);
    ASSERT_TRUE(agent.waitForErrors("connect"));

    EXPECT_EQ(alone(agent, "http://" + port.host()), alive(installation, agent).output);
}

TEST(AliveTest, ConfigurationThatIsGoneChangesNothing) {
    AgentScene scene;
    AgentProcess agent(scene.launch());
    ASSERT_TRUE(scene.server().waitForHeldPolls());
    std::filesystem::remove(scene.installation.configurationFile());

    EXPECT_EQ("exited with 0", alive(scene.installation, agent).ending);
    EXPECT_EQ("exited with 0", scene.stop(agent));
}

TEST(AliveTest, AgentThatHasEndedCannotBeLookedAt) {
    const AgentInstallation installation;  // without a configuration the agent ends at once
    AgentProcess agent{AgentLaunch(installation)};
    ASSERT_EQ("exited with 1", agent.waitForEnd());

    const CheckerAnswer answer = alive(installation, agent);

    EXPECT_EQ("exited with 2", answer.ending);
    EXPECT_EQ("", answer.output);
    EXPECT_EQ("kolvan-agent-check: there is no process " + std::to_string(agent.pid()) + "\n",
              answer.errors);
}

TEST(AliveTest, AgentThatEndsUnderTheEyesCannotBeLookedAt) {
    const RefusingPort port;
    const AgentInstallation installation;
    AgentSettings settings;
    settings.serverEndpoint = "http://" + port.host();
    installation.configure(settings.text());
    AgentProcess agent{AgentLaunch(installation)};
    ASSERT_TRUE(agent.waitForErrors("connect"));
    AgentProcess checker(
        checkerLaunch(installation, {"--alive", std::to_string(agent.pid()), "--seconds", "3600"}));

    agent.sendSignal(SIGTERM);

    EXPECT_EQ("exited with 2", checker.waitForEnd());
    EXPECT_EQ("kolvan-agent-check: there is no process " + std::to_string(agent.pid()) + "\n",
              checker.errors());
}

}  // namespace
}  // namespace kolvan::test
