#include "companions/server/agents/AgentEndpoint.h"

#include "tests/companions/server/support/AgentServerScene.h"
#include "tests/companions/server/support/FakeAgent.h"
#include "tests/support/TemporaryDirectory.h"

#include <boost/asio/post.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <optional>
#include <string>
#include <vector>

namespace kolvan::server::agents {
namespace {

using test::Client;
using test::commandsOf;
using test::FakeAgent;
using test::lookUntil;
using testing::IsEmpty;
using testing::SizeIs;

/// A server and an agent that has connected.
class AgentEndpointTest : public testing::Test {
protected:
    static constexpr std::size_t kLong = 1'000'000;

    AgentEndpointTest() {
        token = server.store.agents().addToken("build-7", false, sha256("secret"));
        speaker.use(server.port());
        EXPECT_EQ(200, speaker.connect().status);
        agent = server.store.agents().list({}, {}).items.at(0);
    }

    OperationState stateOf(const OperationId& operation) {
        return server.store.operations().find(operation).value().state;
    }

    void revoke() { ASSERT_TRUE(server.store.agents().revokeToken(token.id)); }

    test::TemporaryDirectory data;
    test::AgentServerScene server{data.path() / "server"};
    FakeAgent speaker{"uuid-1", "secret"};
    AgentToken token;
    Agent agent;
};

TEST_F(AgentEndpointTest, OutputThatIsUnderWayEndsWithTheRightOfItsAgent) {
    const OperationId operation = server.execute(agent, "");
    ASSERT_THAT(commandsOf(speaker.poll()), SizeIs(1));
    const FakeAgent::RequestText output =
        speaker.outputText(operation.text, std::string(kLong, 'o'));
    Client client(server.port());
    ASSERT_TRUE(client.send(output.beginning));
    const auto kept = [&] { return server.outputs.size(operation, OutputChannel::Stdout); };
    ASSERT_TRUE(lookUntil([&] { return kept() != 0; }));

    revoke();
    (void)client.send(output.end);  // the answer tells

    EXPECT_EQ(403, client.readResponse().status);
    EXPECT_LE(kept(), kLong / 2);
}

TEST_F(AgentEndpointTest, UploadThatIsUnderWayEndsWithTheRightOfItsAgent) {
    const Collection collection = server.collect(agent, {});
    const FakeAgent::RequestText upload = FakeAgent::uploadText(
        collection.id.text + "/secret/data.0", "profile.pb.gz", std::string(kLong, 'm'));
    Client client(server.port());
    ASSERT_TRUE(client.send(upload.beginning));
    ASSERT_TRUE(lookUntil([&] { return server.uploads.received() != 0; }));

    revoke();
    (void)client.send(upload.end);  // the answer tells

    EXPECT_EQ(403, client.readResponse().status);
    EXPECT_LE(server.uploads.received(), kLong / 2);
    EXPECT_FALSE(
        std::filesystem::exists(server.uploads.path(collection.id, "data.0/profile.pb.gz")));
    const auto files = server.store.collections().listFiles(collection.id);
    ASSERT_THAT(files, SizeIs(1));
    EXPECT_FALSE(files.front().complete);
}

TEST_F(AgentEndpointTest, UploadOfAnAgentWhoseTokenWasRevokedIsRefused) {
    const Collection collection = server.collect(agent, {});
    const std::string directory = collection.id.text + "/secret/data.0";
    EXPECT_EQ(200, speaker.upload(directory, "one", "measured").status);

    revoke();

    EXPECT_EQ(403, speaker.upload(directory, "two", "measured").status);
    EXPECT_THAT(server.store.collections().listFiles(collection.id), SizeIs(1));
}

TEST_F(AgentEndpointTest, OutputOfAStrangerIsRefused) {
    const OperationId operation = server.execute(agent, "");
    FakeAgent stranger("uuid-1", "another secret");
    stranger.use(server.port());

    EXPECT_EQ(403, stranger.writeOutput(operation.text, "text").status);

    EXPECT_EQ(0U, server.outputs.size(operation, OutputChannel::Stdout));
    EXPECT_EQ(OperationState::Queued, stateOf(operation));
}

TEST_F(AgentEndpointTest, PollThatIsHeldIsAnsweredWhenItsAgentSaysThatItGoes) {
    auto poll = std::async(std::launch::async, [this] { return speaker.poll(); });
    (void)server.waitForAgent("build-7");

    EXPECT_EQ(200, speaker.disconnect().status);
    const OperationId operation = server.execute(agent, "");  // would wake a poll that is held on

    EXPECT_THAT(commandsOf(poll.get()), IsEmpty());
    EXPECT_EQ(OperationState::Queued, stateOf(operation));
}

TEST_F(AgentEndpointTest, PollThatWasOvertakenByTheFarewellIsNotHeld) {
    const OperationId operation = server.execute(agent, "");
    EXPECT_EQ(200, speaker.disconnect().status);

    EXPECT_THAT(commandsOf(speaker.poll()), IsEmpty());
    EXPECT_EQ(OperationState::Queued, stateOf(operation));

    EXPECT_EQ(200, speaker.connect().status);
    EXPECT_THAT(commandsOf(speaker.poll()), SizeIs(1));
}

TEST_F(AgentEndpointTest, CommandsOfAReplyThatCouldNotBeWrittenGoBackIntoTheQueue) {
    const OperationId first = server.execute(agent, "1");
    const OperationId second = server.execute(agent, "2");
    std::atomic<bool> givenBack = false;
    const auto subscription =
        server.store.wakeUps().onCommands(agent.id, [&givenBack] { givenBack = true; });
    Client client(server.port());
    const std::string poll = speaker.message("commands:get");
    ASSERT_TRUE(
        client.send("POST /api/collection-agent/message HTTP/1.1\r\nHost: test\r\n"
                    "Expect: 100-continue\r\nContent-Length: " +
                    std::to_string(poll.size()) + "\r\n\r\n"));
    ASSERT_TRUE(client.readTo("\r\n\r\n"));  // it is being served

    ASSERT_TRUE(client.send(poll));
    client.reset();

    ASSERT_TRUE(lookUntil([&givenBack] { return givenBack.load(); }));
    const std::vector<test::ReceivedCommand> commands = commandsOf(speaker.poll());
    ASSERT_THAT(commands, SizeIs(2));
    EXPECT_EQ(first.text, commands[0].id);
    EXPECT_EQ(second.text, commands[1].id);
}

TEST_F(AgentEndpointTest, CommandsOfAPollWhoseClientHasGoneMeanwhileGoBackIntoTheQueue) {
    const std::string poll = speaker.message("commands:get");
    std::optional<Client> client(server.port());
    ASSERT_TRUE(
        client->send("POST /api/collection-agent/message HTTP/1.1\r\nHost: test\r\n"
                     "Content-Length: " +
                     std::to_string(poll.size()) + "\r\n\r\n" + poll));
    (void)server.waitForAgent("build-7");
    std::promise<void> leave;
    const std::shared_future<void> mayLeave = leave.get_future().share();
    for (unsigned thread = 0; thread < test::ServerScene::kThreads; ++thread) {
        boost::asio::post(server.threads(), [mayLeave] { mayLeave.wait(); });
    }

    const OperationId operation = server.execute(agent, "");  // the look at it waits for a thread
    client.reset();  // which the system takes for an end of the client's sending alone
    for (int turn = 0; turn < 10; ++turn) {
        server.network().call([] {});  // turns in which the end of the client is noticed
    }
    std::atomic<bool> givenBack = false;
    const auto subscription =
        server.store.wakeUps().onCommands(agent.id, [&givenBack] { givenBack = true; });
    leave.set_value();

    ASSERT_TRUE(lookUntil([&givenBack] { return givenBack.load(); }));
    EXPECT_EQ(OperationState::Queued, stateOf(operation));
}

}  // namespace
}  // namespace kolvan::server::agents
