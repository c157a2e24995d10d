// A server that is replaced by its next process while it works.

#include "basekit2/UniqueFd.h"
#include "tests/companions/server/serve/AgentCrowd.h"
#include "tests/companions/server/serve/RunningServer.h"
#include "tests/companions/server/serve/ServedAgent.h"
#include "tests/companions/server/support/FakeAgent.h"
#include "tests/support/ScriptedCollector.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

using testing::IsEmpty;

bool isServedOn(unsigned port) {
    try {
        const Client client(port);
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

class RestartTest : public testing::Test {
protected:
    RestartTest() {
        ServerStart start;
        start.data = place.path() / "data";
        start.moreArguments = {"--config", place.write("server.ini", "")};
        server = std::make_unique<RunningServer>(start);
        api = std::make_unique<ApiClient>(
            server->port(), server->command({"token", "add", "test", "--role", "engineer"}));
    }

    fs::path configuration() const { return place.path() / "server.ini"; }

    std::string output(const std::string& collection) const {
        return api->get("/api/v1/collections/" + collection + "/output/stdout").body;
    }

    const TemporaryDirectory place;
    std::unique_ptr<RunningServer> server;
    std::unique_ptr<ApiClient> api;
};

TEST_F(RestartTest, AgentInTheMiddleOfACollectionNoticesNothing) {
    addScriptedPackages(*server);
    ServedAgent agent(*server, "build-7");
    Leash leash(place.path() / "leash");
    const std::string collection =
        api->collect(api->agent("build-7"), {"out", "before", "wait", leash.path(), "out", "behind",
                                             "trace", "data.0/profile.pb.gz", "measured"});
    ASSERT_TRUE(lookUntil([&] { return output(collection) == "before\n"; }));
    const std::string errors = agent.process().errors();

    const pid_t replaced = server->restart();
    EXPECT_EQ("exited with 0", RunningServer::waitForEndOf(replaced));
    leash.release();

    EXPECT_EQ("done", api->waitForState(collection, "done"));
    EXPECT_EQ("before\nbehind\n", output(collection));
    EXPECT_EQ("measured",
              api->get("/api/v1/collections/" + collection + "/files/data.0%2Fprofile.pb.gz").body);
    EXPECT_TRUE(agent.process().isRunning());
    EXPECT_EQ(errors, agent.process().errors());
}

class UploadInItsMiddleTest : public RestartTest {
protected:
    static constexpr std::size_t kSize = 300'000;

    UploadInItsMiddleTest() {
        FakeAgent agent("uuid-1", server->command({"agent-token", "add", "build-7"}));
        agent.use(server->port());
        (void)agent.connect();
        collection = api->collect(api->agent("build-7"), {"program"});
        const std::vector<ReceivedCommand> commands = commandsOf(agent.poll());
        upload = FakeAgent::uploadText(commands.at(0).uploadDirectory + "/data.0", "profile.pb.gz",
                                       std::string(kSize, 'm'));
        client = std::make_unique<Client>(server->port());
        EXPECT_TRUE(client->send(upload.beginning));
        EXPECT_TRUE(lookUntil([this] {
            return api->get("/api/v1/collections/" + collection + "/files")
                       .body.find("\"complete\":false") != std::string::npos;
        }));
        replaced = server->restart();
    }

    /// Sends the rest, which makes it whole.
    void expectToBeTakenWhole() {
        ASSERT_TRUE(client->send(upload.end));
        EXPECT_EQ(200, client->readResponse().status);
        EXPECT_EQ("exited with 0", RunningServer::waitForEndOf(replaced));
        EXPECT_EQ(
            std::string(kSize, 'm'),
            api->get("/api/v1/collections/" + collection + "/files/data.0%2Fprofile.pb.gz").body);
    }

    FakeAgent::RequestText upload;
    std::string collection;
    std::unique_ptr<Client> client;
    pid_t replaced = -1;  // it waits for the rest
};

TEST_F(UploadInItsMiddleTest, IsTakenWholeByTheProcessThatIsReplaced) {
    EXPECT_EQ(0, ::kill(replaced, 0));

    expectToBeTakenWhole();
}

TEST_F(UploadInItsMiddleTest, IsTakenWholeAlthoughTheReplacedProcessIsAskedToEnd) {
    ASSERT_EQ(0, ::kill(replaced, SIGTERM));
    ASSERT_TRUE(server->waitForErrors("Stopping: transfers have another 60 s\n"));

    expectToBeTakenWhole();
}

TEST_F(UploadInItsMiddleTest, IsBrokenOffWhenTheReplacedProcessIsAskedToEndTwice) {
    ASSERT_EQ(0, ::kill(replaced, SIGTERM));
    ASSERT_TRUE(server->waitForErrors("Stopping: transfers have another 60 s\n"));

    ASSERT_EQ(0, ::kill(replaced, SIGTERM));

    EXPECT_EQ("killed by signal 15", RunningServer::waitForEndOf(replaced));
    EXPECT_EQ(200, api->get("/api/v1/agents").status);
}

TEST_F(UploadInItsMiddleTest, ProcessThatEndsDoesNotRestart) {
    ASSERT_EQ(0, ::kill(replaced, SIGHUP));
    ASSERT_TRUE(server->waitForErrors("This process is ending, and does not restart\n"));

    expectToBeTakenWhole();
}

TEST_F(RestartTest, ServerGoesOnWhereTheNextProcessCannotServe) {
    FakeAgent agent("uuid-1", server->command({"agent-token", "add", "build-7"}));
    agent.use(server->port());
    ASSERT_EQ(200, agent.connect().status);
    (void)place.write("server.ini", "no-such-option = 1\n");

    server->sendSignal(SIGHUP);

    EXPECT_TRUE(server->waitForErrors(
        "The server goes on as it is: The successor has ended before it served, with exit status "
        "2\n"));
    EXPECT_THAT(api->agents(), testing::SizeIs(1));
    (void)place.write("server.ini", "");
    EXPECT_EQ("exited with 0", RunningServer::waitForEndOf(server->restart()));
    EXPECT_THAT(api->agents(), testing::SizeIs(1));
}

TEST_F(RestartTest, NextProcessReadsTheConfigurationAnew) {
    (void)place.write("server.ini", "public-url = \"ftp://elsewhere\"\n");
    server->sendSignal(SIGHUP);
    EXPECT_TRUE(server->waitForErrors("--public-url: 'ftp://elsewhere' does not begin with"));
}

TEST_F(RestartTest, ServerThatWasReplacedTwentyTimesHasAllOfItsAgents) {
    constexpr std::size_t kAgents = 200;
    constexpr std::size_t kRestarts = 20;
    addScriptedPackages(*server);
    ServedAgent first(*server, "real-1");
    ServedAgent second(*server, "real-2");
    AgentCrowd crowd(server->port(), server->command({"agent-token", "add", "crowd", "--shared"}),
                     kAgents);
    ASSERT_TRUE(lookUntil([&] { return crowd.accepted() == kAgents; }))
        << testing::PrintToString(crowd.failures());
    const auto agents = api->agents();
    ASSERT_EQ(kAgents + 2, agents.size());

    for (std::size_t restart = 0; restart < kRestarts; ++restart) {
        // Their commands are on the way while one process takes over from another.
        for (std::size_t i = restart; i < kAgents; i += kRestarts) {
            const std::string& id = agents.at("host-" + std::to_string(i));
            ASSERT_EQ(202, api->post("/api/v1/agents/" + id + "/processes").status);
        }
        EXPECT_EQ("exited with 0", RunningServer::waitForEndOf(server->restart()));
    }

    EXPECT_TRUE(lookUntil([&] { return crowd.commands() == std::vector<int>(kAgents, 1); }))
        << testing::PrintToString(crowd.commands());
    EXPECT_THAT(crowd.failures(), IsEmpty());
    for (const char* name : {"real-1", "real-2"}) {
        const std::string collection = api->collect(agents.at(name), {"out", "still here"});
        EXPECT_EQ("done", api->waitForState(collection, "done"));
        EXPECT_EQ("still here\n", output(collection));
    }
    EXPECT_TRUE(first.process().isRunning());
    EXPECT_TRUE(second.process().isRunning());
}

class HeldUpRestartTest : public RestartTest {
protected:
    /// Begins a restart. When it returns, the new process waits for its configuration.
    void beginRestart() {
        fs::remove(configuration());
        ASSERT_EQ(0, ::mkfifo(configuration().c_str(), 0600));
        server->sendSignal(SIGHUP);
        writeEnd.reset(::open(configuration().c_str(), O_WRONLY | O_CLOEXEC));
    }

    /// Lets it go on.
    void letGo() { writeEnd.reset(); }

private:
    basekit2::UniqueFd writeEnd;
};

TEST_F(HeldUpRestartTest, EndThatIsAskedForMeanwhileEndsBothProcesses) {
    beginRestart();
    server->sendSignal(SIGTERM);
    ASSERT_TRUE(server->waitForErrors("Stopping when the restart is over\n"));

    letGo();

    EXPECT_EQ("exited with 0", server->waitForEnd());
    EXPECT_TRUE(server->waitForErrors("\nStopping\n"));  // says the new one
    EXPECT_TRUE(lookUntil([&] { return !isServedOn(server->port()); }));
}

TEST_F(HeldUpRestartTest, SecondRequestForTheEndIsObeyedAtOnce) {
    beginRestart();
    server->sendSignal(SIGTERM);
    ASSERT_TRUE(server->waitForErrors("Stopping when the restart is over\n"));

    server->sendSignal(SIGTERM);

    EXPECT_EQ("killed by signal 15", server->waitForEnd());
    EXPECT_TRUE(lookUntil([&] { return !isServedOn(server->port()); }));  // nor will it be
    letGo();
}

TEST_F(HeldUpRestartTest, ServerServesMeanwhileAndRestartsOnce) {
    beginRestart();
    server->sendSignal(SIGHUP);
    ASSERT_TRUE(server->waitForErrors("A restart is under way already\n"));

    EXPECT_EQ(200, api->get("/api/v1/agents").status);
    letGo();

    EXPECT_EQ("exited with 0", server->waitForEnd());
    EXPECT_EQ(200, api->get("/api/v1/agents").status);
}

}  // namespace
}  // namespace kolvan::test
