// A server that is killed at every step of a collection, and started again on the same data.

#include "tests/companions/server/serve/RunningServer.h"
#include "tests/companions/server/support/FakeAgent.h"
#include "tests/support/AgentProcess.h"
#include "tests/support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kolvan::test {
namespace {

using testing::HasSubstr;

class KilledServerTest : public testing::Test {
protected:
    KilledServerTest() {
        startServer();
        token = server->command({"token", "add", "test", "--role", "engineer"});
        agent.emplace("uuid-1", server->command({"agent-token", "add", "build-7"}));
        useServer();
        EXPECT_THAT(agent->connect().body, HasSubstr("connected"));
    }

    void startServer() {
        ServerStart start;
        start.data = place.path() / "data";
        server = std::make_unique<RunningServer>(start);
    }

    void useServer() {
        api.emplace(server->port(), token);
        agent->use(server->port());
    }

    void killAndStartAgain() {
        server->sendSignal(SIGKILL);
        EXPECT_EQ("killed by signal 9", server->waitForEnd());
        startServer();
        useServer();
    }

    std::string output(const std::string& collection) const {
        return api->get("/api/v1/collections/" + collection + "/output/stdout").body;
    }
    std::string file(const std::string& collection) const {
        return api->get("/api/v1/collections/" + collection + "/files/data.0%2Fprofile.pb.gz").body;
    }

    const TemporaryDirectory place;
    std::unique_ptr<RunningServer> server;
    std::string token;
    std::optional<FakeAgent> agent;
    std::optional<ApiClient> api;
};

TEST_F(KilledServerTest, NothingThatWasAcknowledgedIsLost) {
    killAndStartAgain();  // the agent has connected
    const std::string collection = api->collect(api->agent("build-7"), {"program"});

    killAndStartAgain();  // the collection was made
    EXPECT_EQ("waiting", api->member(collection, "state"));
    const std::vector<ReceivedCommand> commands = commandsOf(agent->poll());
    ASSERT_EQ(1U, commands.size());
    const std::string operation = commands.front().id;

    killAndStartAgain();  // its start was handed out
    EXPECT_EQ("waiting", api->member(collection, "state"));
    EXPECT_EQ(200, agent->writeOutput(operation, "first\n").status);

    killAndStartAgain();  // its agent has spoken of it
    EXPECT_EQ("running", api->member(collection, "state"));
    EXPECT_EQ("first\n", output(collection));
    EXPECT_EQ(200, agent->writeOutput(operation, "second\n").status);
    EXPECT_EQ(202, api->post("/api/v1/collections/" + collection + "/stop").status);

    killAndStartAgain();  // it was asked to stop
    EXPECT_EQ("stopping", api->member(collection, "state"));
    EXPECT_EQ("first\nsecond\n", output(collection));
    const std::vector<ReceivedCommand> stop = commandsOf(agent->poll());
    ASSERT_EQ(1U, stop.size());
    EXPECT_EQ("collector:collection:command", stop.front().type);
    EXPECT_EQ(200, agent->finish(stop.front().id, 0).status);
    const std::string directory = commands.front().uploadDirectory + "/data.0";
    EXPECT_EQ(200, agent->upload(directory, "profile.pb.gz", "measured").status);

    killAndStartAgain();  // its profile was uploaded
    EXPECT_EQ("measured", file(collection));
    EXPECT_EQ(200, agent->finish(operation, 0).status);

    killAndStartAgain();  // it has ended
    EXPECT_EQ("done", api->member(collection, "state"));
    EXPECT_EQ("first\nsecond\n", output(collection));
    EXPECT_EQ("measured", file(collection));
}

TEST_F(KilledServerTest, UploadThatWasBrokenOffComesAgainWhole) {
    const std::string collection = api->collect(api->agent("build-7"), {"program"});
    const std::vector<ReceivedCommand> commands = commandsOf(agent->poll());
    ASSERT_EQ(1U, commands.size());
    const std::string directory = commands.front().uploadDirectory + "/data.0";
    const std::string content(300'000, 'm');
    Client client(server->port());
    ASSERT_TRUE(client.send(FakeAgent::uploadText(directory, "profile.pb.gz", content).beginning));
    ASSERT_TRUE(lookUntil([&] {
        return api->get("/api/v1/collections/" + collection + "/files")
                   .body.find("\"complete\":false") != std::string::npos;
    }));

    killAndStartAgain();

    EXPECT_EQ(
        404,
        api->get("/api/v1/collections/" + collection + "/files/data.0%2Fprofile.pb.gz").status);
    EXPECT_EQ(200, agent->upload(directory, "profile.pb.gz", content).status);
    EXPECT_EQ(content, file(collection));
}

TEST_F(KilledServerTest, CommandThatWasHandedOutIsNotHandedOutAgain) {
    const std::string collection = api->collect(api->agent("build-7"), {"program"});
    ASSERT_EQ(1U, commandsOf(agent->poll()).size());

    killAndStartAgain();
    ASSERT_EQ(202, api->post("/api/v1/agents/" + api->agent("build-7") + "/processes").status);

    const std::vector<ReceivedCommand> commands = commandsOf(agent->poll());
    ASSERT_EQ(1U, commands.size());
    EXPECT_EQ("collector:execute", commands.front().type);
}

}  // namespace
}  // namespace kolvan::test
