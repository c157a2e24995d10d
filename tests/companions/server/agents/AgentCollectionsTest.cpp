// Collections of the agent's own program, from the server's side.

#include "tests/companions/server/agents/ServedAgentTest.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace kolvan::server::agents {
namespace {

using test::AgentLaunch;
using test::AgentProcess;

class AgentCollectionsTest : public ServedAgentTest {
protected:
    /// A collection that writes a trace and then serves commands.
    Collection startServing() {
        const Collection collection =
            server.collect(agent, {"trace", "data.0/trace", "measured", "out", "begun", "control"});
        EXPECT_TRUE(waitForOutput(collection.start, "begun\n"));
        return collection;
    }

    CollectionState stateOf(const Collection& collection) {
        return server.store.collections().find(collection.id).value().state;
    }

    std::string fileOf(const Collection& collection, const std::string& name) const {
        std::ifstream file(server.uploads.path(collection.id, name));
        return {std::istreambuf_iterator<char>(file), {}};
    }

    AgentProcess process{AgentLaunch(installation)};
    const Agent agent = waitForAgent();
};

TEST_F(AgentCollectionsTest, HundredTracesAllArrive) {
    std::vector<std::string> instructions;
    for (int i = 0; i < 100; ++i) {
        instructions.insert(instructions.end(),
                            {"trace", "data.0/" + std::to_string(i), "trace " + std::to_string(i)});
    }

    const Collection collection = server.collect(agent, instructions);

    EXPECT_EQ("code 0", outcome(collection.start));
    EXPECT_EQ(100U, server.store.collections().listFiles(collection.id).size());
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ("trace " + std::to_string(i), fileOf(collection, "data.0/" + std::to_string(i)));
    }
}

TEST_F(AgentCollectionsTest, CommandReachesTheRunningCollection) {
    const Collection collection = startServing();

    EXPECT_EQ(Asked::Yes, server.collections.command(collection.id, "status"));
    EXPECT_TRUE(waitForOutput(collection.start, "begun\ncommand: status\n"));
    EXPECT_EQ(Asked::Yes, server.collections.stop(collection.id));

    EXPECT_EQ("code 0", outcome(collection.start));
    EXPECT_EQ("begun\ncommand: status\ncommand: stop\n",
              server.output(collection.start, OutputChannel::Stdout));
    EXPECT_EQ(CollectionState::Done, stateOf(collection));
}

TEST_F(AgentCollectionsTest, TracesOfACancelledOneArrive) {
    const Collection collection = startServing();

    EXPECT_EQ(Asked::Yes, server.collections.cancel(collection.id));

    EXPECT_EQ("code 0", outcome(collection.start));
    EXPECT_EQ("begun\ncommand: cancel\n", server.output(collection.start, OutputChannel::Stdout));
    EXPECT_EQ("measured", fileOf(collection, "data.0/trace"));
}

TEST_F(AgentCollectionsTest, SecondOneWaitsForTheFirst) {
    const Collection first = startServing();
    const Collection second = server.collect(agent, {"out", "second"});
    EXPECT_EQ("code 0", outcome(server.execute(agent, "out passes")));
    EXPECT_EQ(CollectionState::Waiting, stateOf(second));

    EXPECT_EQ(Asked::Yes, server.collections.stop(first.id));

    EXPECT_EQ("code 0", outcome(second.start));
    EXPECT_EQ("second\n", server.output(second.start, OutputChannel::Stdout));
    EXPECT_EQ(CollectionState::Done, stateOf(first));
}

TEST_F(AgentCollectionsTest, FailureIsTheCollections) {
    const Collection collection =
        server.collect(agent, {"trace", "data.0/trace", "half", "err", "no rights", "exit", "3"});

    EXPECT_EQ("code 3", outcome(collection.start));
    EXPECT_EQ(CollectionState::Failed, stateOf(collection));
    EXPECT_EQ("no rights\n", server.output(collection.start, OutputChannel::Stderr));
    EXPECT_EQ("half", fileOf(collection, "data.0/trace"));
}

TEST_F(AgentCollectionsTest, InterruptedAgentBringsItsCollectionToItsEnd) {
    test::Leash leash(data.path() / "leash");
    const Collection collection = server.collect(
        agent, {"out", "begun", "wait", leash.path(), "trace", "data.0/trace", "measured"});
    ASSERT_TRUE(waitForOutput(collection.start, "begun\n"));
    process.sendSignal(SIGINT);
    ASSERT_TRUE(process.waitUntilDelivered(SIGINT));

    leash.release();

    EXPECT_EQ("exited with 0", process.waitForEnd());
    EXPECT_EQ("code 0", outcome(collection.start));
    EXPECT_EQ("measured", fileOf(collection, "data.0/trace"));
    EXPECT_EQ(AgentPresence::Left, server.store.agents().find(agent.id).value().presence);
}

}  // namespace
}  // namespace kolvan::server::agents
