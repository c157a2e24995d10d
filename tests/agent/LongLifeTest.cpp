#include "agent/Agent.h"
#include "tests/agent/AgentWithFakes.h"
#include "tests/agent/LargeAllocations.h"
#include "tests/support/Gate.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

namespace cagnt1 {
namespace {

using kolvan::test::AgentWithFakes;
using kolvan::test::execute;
using kolvan::test::Gate;
using kolvan::test::kLargeAllocationBytes;
using kolvan::test::liveLargeAllocations;
using kolvan::test::Messages;
using kolvan::test::stackCount;
using kolvan::test::threadCount;
using kolvan::test::waitUntilThreadCountIsAtMost;

constexpr std::size_t kBatch = 20;

/// Lets the agent run short operations, `kBatch` at a time.
void runOperations(AgentWithFakes& scene, std::size_t count) {
    for (std::size_t i = 0; i < count; i += kBatch) {
        scene.server->forgetRequests();
        // The poll in flight is forgotten too, so the reply goes out without waiting for it.
        scene.server->answer("commands:get", Messages(kBatch, execute("1", "go")));
        scene.server->waitForRequest("collector:finish", kBatch);
        scene.server->waitForRequest("commands:get");
    }
}

TEST(LongLifeTest, ManyFinishedOperationsKeepNoThreadAndNoStack) {
    AgentWithFakes scene;
    scene.startPolling();
    runOperations(scene, 100);
    const std::size_t threads = threadCount();
    const std::size_t stacks = stackCount();

    runOperations(scene, 2000);

    // The last batch may still be on its way out; a thread that nobody joins keeps its stack, and
    // two thousand of them would be there. The C library keeps some for threads to come.
    EXPECT_NO_THROW(waitUntilThreadCountIsAtMost(threads));
    EXPECT_LT(stackCount(), stacks + 200);
}

TEST(LongLifeTest, FinishedOperationsKeepNoCopyOfTheirMessage) {
    constexpr long kOperations = 40;
    AgentWithFakes scene;
    scene.startPolling();
    const Message launch{"collector:execute",
                         {{"id", "1"},
                          {"args", "go"},
                          {"nobody reads this", std::string(kLargeAllocationBytes, 'x')}}};
    const long before = liveLargeAllocations();

    for (long i = 0; i < kOperations; ++i) {
        scene.server->forgetRequests();
        scene.server->answer("commands:get", {launch});
        scene.server->waitForRequest("collector:finish");
        scene.server->waitForRequest("commands:get");
    }

    // The last operation may still be on its way out.
    EXPECT_LT(liveLargeAllocations(), before + kOperations / 4);
}

TEST(LongLifeTest, ARunningOperationKeepsItsMessage) {
    Gate mayEnd;
    AgentWithFakes scene;
    scene.operations->bodies["hold"] = [&](auto&) {
        mayEnd.wait();
        return 0;
    };
    scene.startPolling();
    scene.deliver({{"collector:execute",
                    {{"id", std::string(kLargeAllocationBytes, 'x')}, {"args", "hold"}}}});
    scene.operations->waitForCall("execute");

    EXPECT_LT(0, liveLargeAllocations());
    mayEnd.open();
    EXPECT_EQ(kLargeAllocationBytes,
              scene.server->waitForRequest("collector:finish").message.parameter("id").size());
}

}  // namespace
}  // namespace cagnt1
