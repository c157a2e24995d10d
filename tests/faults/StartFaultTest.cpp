#include "tests/endtoend/AgentScene.h"
#include "tests/support/FailingCall.h"
#include "tests/support/RawServer.h"

#include <boost/filesystem/exception.hpp>
#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <ostream>
#include <string>

namespace kolvan::test {
namespace {

using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* kNotice = "Internal error occured: ";
const boost::system::error_code kNoSuchFile(ENOENT, boost::system::system_category());
constexpr const char* kNoThread = "Resource temporarily unavailable";

/// A call that fails before there is an agent.
struct FailingStart {
    std::string name;
    std::string call;
    int error;
    std::uint64_t number;
    std::string reason;
};

void PrintTo(const FailingStart& start, std::ostream* stream) {
    *stream << start.name;
}

class FailingStartTest : public testing::TestWithParam<FailingStart> {};

TEST_P(FailingStartTest, IsReportedByTheEntry) {
    AgentScene scene;
    AgentLaunch launch = scene.launch();
    // Only a relative path makes the working directory count.
    launch.firstArgument = "./kolvan-agent";
    const FailingCall failure(GetParam().call, GetParam().error, GetParam().number);
    failure.applyTo(launch);

    AgentProcess agent(launch);

    EXPECT_EQ("exited with 1", agent.waitForEnd());
    EXPECT_TRUE(failure.reached());
    EXPECT_EQ(kNotice + GetParam().reason, agent.errors());
    EXPECT_EQ("Aborting...", agent.output());
    EXPECT_THAT(scene.server().transcript(), IsEmpty());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    StartFaultTest, FailingStartTest,
    testing::Values(
        FailingStart{"TransportLibrary", "curl", EIO, 1, curl_easy_strerror(CURLE_FAILED_INIT)},
        FailingStart{
            "WorkingDirectory", "getcwd", ENOENT, 1,
            boost::filesystem::filesystem_error("boost::filesystem::current_path", kNoSuchFile)
                .what()},
        FailingStart{"ThreadForReplies", "thread", EAGAIN, 1, kNoThread},
        FailingStart{"ThreadForStops", "thread", EAGAIN, 2, kNoThread},
        FailingStart{"ThreadForTheConnection", "thread", EAGAIN, 3, kNoThread}),
    [](const testing::TestParamInfo<FailingStart>& start) { return start.param.name; });

/// A start that fails when the agent is there and is just connecting.
class FailingInterruptThreadTest : public testing::TestWithParam<FailingStart> {};

TEST_P(FailingInterruptThreadTest, EndsTheAgentAlsoWhenTheServerAcceptsItAfterwards) {
    SceneSettings settings;
    settings.throughRelay = true;
    settings.server.releasePollsOnDisconnect = false;
    AgentScene scene(settings);
    scene.relay().treat([](const std::string& request) {
        return request.find("\"connect\"") == std::string::npos ? Treatment::Pass : Treatment::Hold;
    });
    AgentLaunch launch = scene.launch();
    const FailingCall failure(GetParam().call, GetParam().error, GetParam().number);
    failure.applyTo(launch);
    AgentProcess agent(launch);
    ASSERT_TRUE(scene.server().waitForMessage("disconnect"));
    ASSERT_TRUE(scene.relay().waitForHeld(1));

    scene.relay().release();

    EXPECT_TRUE(
        lookUntil([&] { return !agent.isRunning() || scene.server().waitForHeldPolls(1, {}); }));
    scene.server().releasePolls();
    EXPECT_EQ("exited with 1", agent.waitForEnd());
    EXPECT_THAT(agent.errors(), StartsWith(kNotice + GetParam().reason));
    EXPECT_THAT(agent.output(), testing::HasSubstr("Aborting..."));
    EXPECT_THAT(leftChildren(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    StartFaultTest, FailingInterruptThreadTest,
    testing::Values(FailingStart{"Thread", "thread", EAGAIN, 4, kNoThread},
                    FailingStart{"Event", "eventfd", EMFILE, 1, "eventfd: Too many open files"}),
    [](const testing::TestParamInfo<FailingStart>& start) { return start.param.name; });

TEST(StartFaultTest, InterruptsAreLetInAlsoWhenWaitingForThemHasFailedOnce) {
    AgentScene scene;
    AgentLaunch launch = scene.launch();
    const FailingCall failure("ppoll", ENOMEM, 1);
    failure.applyTo(launch);
    AgentProcess agent(launch);
    ASSERT_TRUE(scene.server().waitForHeldPolls());
    ASSERT_TRUE(lookUntil([&] { return failure.reached(); }));

    agent.sendSignal(SIGINT);

    EXPECT_EQ("exited with 0", agent.waitForEnd());
    EXPECT_EQ("", agent.errors());
    EXPECT_THAT(scene.problems(), IsEmpty());
}

TEST(StartFaultTest, ServerThatNeverAnswersIsWaitedFor) {
    const RawServer server([](RawConnection& connection) {
        (void)connection.readRequest();
        connection.waitForPeerEnd();
    });
    AgentInstallation installation;
    AgentSettings settings;
    settings.serverEndpoint = server.endpoint();
    installation.configure(settings.text());
    AgentProcess agent{AgentLaunch(installation)};
    ASSERT_TRUE(server.waitForRequests(1));

    agent.sendSignal(SIGINT);

    ASSERT_TRUE(server.waitForRequests(2));
    EXPECT_THAT(bodyOf(server.requests()[0]), StartsWith(R"({"messageType":"connect")"));
    EXPECT_THAT(bodyOf(server.requests()[1]), StartsWith(R"({"messageType":"disconnect")"));
    EXPECT_TRUE(agent.isRunning());
    agent.sendSignal(SIGTERM);
    EXPECT_EQ("killed by signal 15", agent.waitForEnd());
    EXPECT_EQ("", agent.errors());
    EXPECT_TRUE(server.waitForEndedConnections(2));
    EXPECT_THAT(leftChildren(), IsEmpty());
}

}  // namespace
}  // namespace kolvan::test
