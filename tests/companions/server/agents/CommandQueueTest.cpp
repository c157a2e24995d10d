#include "companions/server/agents/CommandQueue.h"

#include "tests/companions/server/agents/ServiceWithAgent.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace kolvan::server::agents {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class CommandQueueTest : public ServiceWithAgent {
protected:
    std::unique_ptr<CommandQueue> queueOf(const std::optional<AgentId>& who) {
        const auto changed = [this](const std::string& key) { woken.push_back(key); };
        return std::make_unique<CommandQueue>(service, store.wakeUps(), sender, who,
                                              CommandQueue::Listeners{changed, {}});
    }

    std::vector<std::string> woken;
};

TEST_F(CommandQueueTest, LookTakesWhatWaits) {
    const OperationId operation = enqueue();
    const auto queue = queueOf(agent.id);

    queue->look();

    ASSERT_EQ(1U, queue->taken().size());
    EXPECT_EQ(operation, queue->taken().front().id);
    EXPECT_FALSE(queue->hasChanged());
    queue->look();
    EXPECT_THAT(queue->taken(), IsEmpty());
}

TEST_F(CommandQueueTest, WhatComesAfterALookIsNoticedAndTakenByTheNext) {
    const auto queue = queueOf(agent.id);
    queue->look();

    const OperationId operation = enqueue();

    EXPECT_TRUE(queue->hasChanged());
    EXPECT_THAT(woken, ElementsAre(queue->key()));
    queue->look();
    ASSERT_EQ(1U, queue->taken().size());
    EXPECT_EQ(operation, queue->taken().front().id);
    EXPECT_FALSE(queue->hasChanged());
}

TEST_F(CommandQueueTest, FarewellOfTheAgentIsNoticedAndFoundByTheNextLook) {
    const auto queue = queueOf(agent.id);
    queue->look();
    EXPECT_FALSE(queue->hasLeft());

    service.leave(sender, agent.id);

    EXPECT_TRUE(queue->hasChanged());
    queue->look();
    EXPECT_TRUE(queue->hasLeft());
}

TEST_F(CommandQueueTest, QueueThatHasGoneIsToldNothing) {
    queueOf(agent.id)->look();

    enqueue();

    EXPECT_THAT(woken, IsEmpty());
}

TEST_F(CommandQueueTest, StrangerHasNoCommandsAndAKeyOfItsOwn) {
    enqueue();
    const auto queue = queueOf(std::nullopt);

    queue->look();

    EXPECT_THAT(queue->taken(), IsEmpty());
    EXPECT_EQ("stranger uuid-1", queue->key());
    EXPECT_EQ(agent.id.text, queueOf(agent.id)->key());
}

TEST_F(CommandQueueTest, AgentWhoseTokenWasRevokedGetsNothing) {
    enqueue();
    store.agents().revokeToken(token.id);
    const auto queue = queueOf(agent.id);

    queue->look();

    EXPECT_THAT(queue->taken(), IsEmpty());
    EXPECT_FALSE(queue->hasLeft());  // its poll is held: it would ask again at once
}

}  // namespace
}  // namespace kolvan::server::agents
