// What the agent's runs look like to the server: its own program, over real connections.

#include "tests/companions/server/agents/ServedAgentTest.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace kolvan::server::agents {
namespace {

using test::AgentLaunch;
using test::AgentProcess;

class AgentOperationsTest : public ServedAgentTest {
protected:
    AgentProcess process{AgentLaunch(installation)};
    const Agent agent = waitForAgent();
};

TEST_F(AgentOperationsTest, EveryChannelArrivesWholeAndInOrder) {
    constexpr int kBytes = 3'000'001;
    const std::string bytes = std::to_string(kBytes);

    const OperationId run =
        server.execute(agent, "flood out " + bytes + " flood err " + bytes + " flood fb " + bytes);

    EXPECT_EQ("code 0", outcome(run));
    const std::string expected = test::floodText(kBytes);
    EXPECT_TRUE(expected == server.output(run, OutputChannel::Stdout));
    EXPECT_TRUE(expected == server.output(run, OutputChannel::Stderr));
    EXPECT_TRUE(expected == server.output(run, OutputChannel::Feedback));
}

TEST_F(AgentOperationsTest, BytesThatAreNoTextPassUnchanged) {
    const OperationId run = server.execute(agent, "bytes out 00fffec0afed800a0d1b");

    EXPECT_EQ("code 0", outcome(run));
    EXPECT_EQ(std::string("\x00\xff\xfe\xc0\xaf\xed\x80\x0a\x0d\x1b", 10),
              server.output(run, OutputChannel::Stdout));
}

TEST_F(AgentOperationsTest, OutputArrivesWhileTheRunGoesOn) {
    test::Leash leash(data.path() / "leash");

    const OperationId run = server.execute(agent, "out early wait " + leash.path() + " out late");

    EXPECT_TRUE(waitForOutput(run, "early\n"));
    EXPECT_EQ(OperationState::Running, server.store.operations().find(run)->state);
    leash.release();
    EXPECT_EQ("code 0", outcome(run));
    EXPECT_EQ("early\nlate\n", server.output(run, OutputChannel::Stdout));
}

TEST_F(AgentOperationsTest, EndsAreReportedAsTheyAre) {
    for (const auto& [end, code] :
         {std::pair("exit 0", 0), std::pair("exit 255", 255), std::pair("die 9", 137)}) {
        const OperationId run = server.execute(agent, end);

        EXPECT_EQ("code " + std::to_string(code), outcome(run));
        EXPECT_EQ("", server.output(run, OutputChannel::Stdout));
    }
}

TEST_F(AgentOperationsTest, FiftyAtOnceAreNotMixed) {
    constexpr int kOperations = 50;
    test::Leash leash(data.path() / "leash");
    std::vector<OperationId> runs;
    for (int i = 0; i < kOperations; ++i) {
        const std::string number = std::to_string(i);
        runs.push_back(server.execute(agent, "out started wait " + leash.path() + " lines out 50 " +
                                                 number + " lines err 50 " + number + " exit " +
                                                 number));
    }
    for (const OperationId& run : runs) {
        EXPECT_TRUE(waitForOutput(run, "started\n"));
    }

    leash.release();

    for (int i = 0; i < kOperations; ++i) {
        const std::string number = std::to_string(i);
        const OperationId& run = runs[static_cast<std::size_t>(i)];
        EXPECT_EQ("code " + number, outcome(run));
        EXPECT_EQ("started\n" + test::numberedLines(50, number),
                  server.output(run, OutputChannel::Stdout));
        EXPECT_EQ(test::numberedLines(50, number), server.output(run, OutputChannel::Stderr));
    }
}

TEST_F(AgentOperationsTest, HeirThatHoldsThePipesDoesNotHoldUpTheEnd) {
    test::Leash leash(data.path() / "leash");

    const OperationId run =
        server.execute(agent, "out before heir " + leash.path() + " out after exit 4");

    EXPECT_EQ("code 4", outcome(run));
    EXPECT_EQ("before\nafter\n", server.output(run, OutputChannel::Stdout));
    server.stopAgent(agent);
    EXPECT_EQ("exited with 0", process.waitForEnd());
    leash.release();
    EXPECT_TRUE(test::waitUntilNoChildIsLeft());
}

TEST_F(AgentOperationsTest, CancelEndsRunsAndTheAgentGoesOn) {
    const OperationId run = server.execute(agent, "out begun hang");
    ASSERT_TRUE(waitForOutput(run, "begun\n"));

    server.cancelAll(agent);

    EXPECT_EQ("code 143", outcome(run));
    EXPECT_EQ("code 0", outcome(server.execute(agent, "out after")));
}

TEST_F(AgentOperationsTest, CollectorThatCannotBeStartedSaysWhy) {
    const std::filesystem::path collector = installation.target() / "collector/bin/kolvan-trcap";
    ASSERT_EQ("code 0", outcome(server.execute(agent, "out x")));
    std::filesystem::remove(collector);

    const OperationId run = server.execute(agent, "out x");

    EXPECT_EQ("code -1", outcome(run));
    EXPECT_EQ(collector.string() + ": No such file or directory\n",
              server.output(run, OutputChannel::Stderr));
}

TEST_F(AgentOperationsTest, AgentThatWasStoppedForAWhileGoesOnWhereItWas) {
    test::Leash leash(data.path() / "leash");
    const OperationId run = server.execute(agent, "out begun wait " + leash.path() + " out end");
    ASSERT_TRUE(waitForOutput(run, "begun\n"));
    process.sendSignal(SIGSTOP);
    ASSERT_TRUE(test::waitUntilStoppedBySignal(process.pid()));
    const OperationId other = server.execute(agent, "out other");
    leash.release();

    process.sendSignal(SIGCONT);

    EXPECT_EQ("code 0", outcome(other));
    EXPECT_EQ("code 0", outcome(run));
    EXPECT_EQ("begun\nend\n", server.output(run, OutputChannel::Stdout));
}

}  // namespace
}  // namespace kolvan::server::agents
