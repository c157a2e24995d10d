// The agent itself against the server: its own program, over real connections.

#include "companions/server/http/ListeningSocket.h"
#include "tests/companions/server/agents/ServedAgentTest.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>

namespace kolvan::server::agents {
namespace {

using test::AgentLaunch;
using test::AgentProcess;
using test::AgentServerScene;

class AgentLifeTest : public ServedAgentTest {};

TEST_F(AgentLifeTest, InstallsItsCollectorRunsItAndGoesOnRequest) {
    AgentProcess process{AgentLaunch(installation)};
    const Agent agent = server.waitForAgent("build-7");

    const OperationId run = server.execute(agent, "out text err warning fb <begin/> exit 3");
    EXPECT_EQ(3, server.waitForEnd(run).exitCode);
    server.stopAgent(agent);

    EXPECT_EQ("exited with 0", process.waitForEnd());
    EXPECT_EQ("text\n", server.output(run, OutputChannel::Stdout));
    EXPECT_EQ("warning\n", server.output(run, OutputChannel::Stderr));
    EXPECT_EQ("<begin/>\n", server.output(run, OutputChannel::Feedback));
    EXPECT_EQ(AgentPresence::Left, server.store.agents().find(agent.id).value().presence);
}

TEST_F(AgentLifeTest, TracesOfACollectionAreThereWhenItIsDone) {
    AgentProcess process{AgentLaunch(installation)};
    const Agent agent = server.waitForAgent("build-7");

    const Collection collection =
        server.collect(agent, {"trace", "data.0/one", "first", "trace", "data.0/below/two", ""});
    EXPECT_EQ("", server.waitForEnd(collection.start).errorMessage);

    EXPECT_EQ(CollectionState::Done, server.store.collections().find(collection.id).value().state);
    const std::vector<CollectionFile> files = server.store.collections().listFiles(collection.id);
    ASSERT_EQ(2U, files.size());
    EXPECT_EQ("data.0/below/two", files[0].name);
    EXPECT_EQ("data.0/one", files[1].name);
    EXPECT_TRUE(files[0].complete);
    EXPECT_TRUE(files[1].complete);
    std::ifstream file(server.uploads.path(collection.id, "data.0/one"));
    EXPECT_EQ("first", std::string(std::istreambuf_iterator<char>(file), {}));
    EXPECT_EQ(files[1].sizeBytes, 5U);
}

TEST_F(AgentLifeTest, FloodOfOutputArrivesWhole) {
    AgentProcess process{AgentLaunch(installation)};
    const Agent agent = server.waitForAgent("build-7");

    const OperationId run = server.execute(agent, "flood out 8000000 exit 0");
    EXPECT_EQ(0, server.waitForEnd(run).exitCode);

    EXPECT_TRUE(test::floodText(8'000'000) == server.output(run, OutputChannel::Stdout));
    EXPECT_EQ(8'000'000U, server.store.operations().outputSize(run, OutputChannel::Stdout));
}

TEST_F(AgentLifeTest, StrangerIsNotConnectedAndLeavesALineInTheAudit) {
    settings.accessToken = "another token";
    configure();
    AgentProcess process{AgentLaunch(installation)};

    EXPECT_TRUE(test::lookUntil([&] {
        const auto lines = server.store.audit().list({}, {}).items;
        return !lines.empty() && lines.front().action == "agent.refused";
    }));
    EXPECT_TRUE(server.store.agents().list({}, {}).items.empty());
    process.sendSignal(SIGTERM);
    EXPECT_EQ("killed by signal 15", process.waitForEnd());
}

TEST_F(AgentLifeTest, KilledAgentsCollectionFailsWhenItComesBack) {
    auto process = std::make_unique<AgentProcess>(AgentLaunch(installation));
    const Agent agent = server.waitForAgent("build-7");
    const Collection collection = server.collect(agent, {"out", "begun", "hang"});
    ASSERT_TRUE(test::lookUntil(
        [&] { return server.output(collection.start, OutputChannel::Stdout) == "begun\n"; }));
    process->sendSignal(SIGKILL);
    process.reset();

    const AgentProcess again{AgentLaunch(installation)};

    EXPECT_EQ("The agent has started anew", server.waitForEnd(collection.start).errorMessage);
    EXPECT_EQ(CollectionState::Failed,
              server.store.collections().find(collection.id).value().state);
    EXPECT_EQ(agent.id, server.waitForAgent("build-7").id);
}

TEST_F(AgentLifeTest, SuccessorOnTheSameSocketAndDataGoesOnWithItsAgents) {
    const auto place = std::make_unique<test::TemporaryDirectory>();
    const basekit2::UniqueFd socket = http::listenOn("127.0.0.1", 0);
    const auto share = [&] {
        return basekit2::UniqueFd(::fcntl(socket.get(), F_DUPFD_CLOEXEC, 0));
    };
    auto first = std::make_unique<AgentServerScene>(place->path(), share());
    first->store.agents().addToken("build-7", false, sha256("secret-token"));
    first->addPackage(PackageArchitecture::X86, "package-x86.tar");
    first->addPackage(PackageArchitecture::X64, "package-x64.tar");
    settings.serverEndpoint = first->endpoint();
    configure();
    AgentProcess process{AgentLaunch(installation)};
    const Agent agent = first->waitForAgent("build-7");
    const auto fifo = place->path() / "leash";
    test::Leash leash(fifo);
    const OperationId run =
        first->execute(agent, "out before wait " + leash.path() + " out behind");
    ASSERT_TRUE(
        test::lookUntil([&] { return first->output(run, OutputChannel::Stdout) == "before\n"; }));

    auto second = std::make_unique<AgentServerScene>(place->path(), share());
    EXPECT_EQ(0U, first->stop());
    leash.release();

    EXPECT_EQ(0, second->waitForEnd(run).exitCode);
    EXPECT_EQ("before\nbehind\n", second->output(run, OutputChannel::Stdout));
    second->stopAgent(agent);
    EXPECT_EQ("exited with 0", process.waitForEnd());
    second.reset();
    first.reset();
}

}  // namespace
}  // namespace kolvan::server::agents
