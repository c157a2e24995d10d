#include "companions/server/agents/AgentService.h"

#include "tests/companions/server/agents/ServiceWithAgent.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace kolvan::server::agents {
namespace {

class AgentServiceTest : public ServiceWithAgent {
protected:
    OperationId enqueueAndTake() {
        const OperationId operation = enqueue();
        service.takeCommands(sender, agent.id);
        return operation;
    }

    OperationState stateOf(const OperationId& operation) {
        return store.operations().find(operation).value().state;
    }

    std::string output(const OperationId& operation, OutputChannel channel) const {
        std::string text(outputs.size(operation, channel), '\0');
        outputs.read(operation, channel, 0, text);
        return text;
    }
};

TEST_F(AgentServiceTest, KnownTokenIsAccepted) {
    EXPECT_EQ("build-7", agent.name);
    EXPECT_EQ("host", agent.hostName);
    EXPECT_EQ("192.0.2.1", agent.address);
    EXPECT_EQ(agent.id, service.recognise(sender));
}

TEST_F(AgentServiceTest, RecordsWhoWasHeardSinceTheLastTime) {
    const UtcTime connected = clock.utc();
    clock.advance(std::chrono::seconds(30));
    service.recordSeen();
    EXPECT_EQ(connected, store.agents().find(agent.id)->lastSeen);

    ASSERT_TRUE(service.recognise(sender));
    service.recordSeen();
    const UtcTime heard = clock.utc();
    EXPECT_EQ(heard, store.agents().find(agent.id)->lastSeen);

    clock.advance(std::chrono::seconds(30));
    service.recordSeen();
    EXPECT_EQ(heard, store.agents().find(agent.id)->lastSeen);
}

TEST_F(AgentServiceTest, UnknownTokenIsRefusedAndWrittenDown) {
    EXPECT_FALSE(service.connect({"uuid-2", "wrong", "192.0.2.9"}, "stranger"));

    EXPECT_FALSE(service.recognise({"uuid-2", "wrong", "192.0.2.9"}));
    const std::vector<AuditLine> lines = store.audit().list({}, {}).items;
    ASSERT_EQ(1U, lines.size());
    EXPECT_EQ("agent.refused", lines.front().action);
    EXPECT_EQ("stranger", lines.front().subject);
    EXPECT_EQ("192.0.2.9", lines.front().address);
}

TEST_F(AgentServiceTest, StrangerWhoTriesForEverDoesNotFillTheAudit) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        EXPECT_FALSE(service.connect({"uuid-2", "wrong", "192.0.2.9"}, "stranger"));
    }

    EXPECT_EQ(RefusalLog::kLinesPerMinute, store.audit().list({}, {200, ""}).items.size());
}

TEST_F(AgentServiceTest, UuidOfAnotherAgentIsNoUseWithoutItsToken) {
    store.agents().addToken("build-8", false, sha256("other"));

    EXPECT_FALSE(service.recognise({"uuid-1", "other", ""}));
    EXPECT_FALSE(service.recognise({"uuid-1", "", ""}));
}

TEST_F(AgentServiceTest, SuccessorRecognisesAnAgentThatHasConnectedBefore) {
    AgentService successor(store, tokens, outputs);

    EXPECT_EQ(agent.id, successor.recognise(sender));
    EXPECT_EQ(agent.id, successor.recognise(sender));
}

TEST_F(AgentServiceTest, AgentIsTheSameOneAfterItsRestart) {
    const Sender again{"uuid-2", "secret", "192.0.2.1"};

    EXPECT_EQ(agent.id, service.connect(again, "renamed-host").value().id);
    EXPECT_EQ(agent.id, service.recognise(again));
}

TEST_F(AgentServiceTest, RevokedTokenGetsNoCommandsAndIsNotRecognisedAnyMore) {
    NewOperation operation;
    operation.messageType = "collector:execute";
    store.operations().enqueue(agent.id, operation);
    store.agents().revokeToken(token.id);

    EXPECT_EQ(0U, service.takeCommands(sender, agent.id).value().size());

    EXPECT_FALSE(service.recognise(sender));
    EXPECT_FALSE(service.connect(sender, "host"));
    EXPECT_EQ(OperationState::Queued, stateOf(operation.id));
}

TEST_F(AgentServiceTest, RevokedTokenIsNotRecognisedThoughItsAgentNeverAsksForCommands) {
    ASSERT_TRUE(service.recognise(sender));

    store.agents().revokeToken(token.id);

    EXPECT_FALSE(service.recognise(sender));
}

TEST_F(AgentServiceTest, TokenOfAnotherAgentThatIsRevokedChangesNothing) {
    ASSERT_TRUE(service.recognise(sender));

    store.agents().revokeToken(store.agents().addToken("other", false, sha256("other")).id);

    EXPECT_TRUE(service.recognise(sender));
}

TEST_F(AgentServiceTest, OutputIsKeptInItsOrderAndConfirmsTheOperation) {
    const OperationId operation = enqueueAndTake();

    EXPECT_TRUE(service.append(agent.id, operation, OutputChannel::Stdout, "one "));
    EXPECT_TRUE(service.append(agent.id, operation, OutputChannel::Stderr, "error"));
    EXPECT_TRUE(service.append(agent.id, operation, OutputChannel::Stdout, "two"));

    EXPECT_EQ("one two", output(operation, OutputChannel::Stdout));
    EXPECT_EQ("error", output(operation, OutputChannel::Stderr));
    EXPECT_EQ(OperationState::Running, stateOf(operation));
}

TEST_F(AgentServiceTest, WhatIsThereOfAChannelIsRecordedWhenItIsAnnounced) {
    const OperationId operation = enqueueAndTake();
    service.append(agent.id, operation, OutputChannel::Stdout, "one ");
    service.append(agent.id, operation, OutputChannel::Stdout, "two");
    service.append(agent.id, operation, OutputChannel::Stderr, "error");

    service.announce(operation, OutputChannel::Stdout);

    EXPECT_EQ(7U, store.operations().outputSize(operation, OutputChannel::Stdout));
    EXPECT_EQ(0U, store.operations().outputSize(operation, OutputChannel::Stderr));
}

TEST_F(AgentServiceTest, OutputOfAnotherAgentsOperationIsRefused) {
    store.agents().addToken("build-8", false, sha256("other"));
    const Agent stranger = service.connect({"uuid-8", "other", ""}, "elsewhere").value();
    const OperationId operation = enqueueAndTake();

    EXPECT_FALSE(service.append(stranger.id, operation, OutputChannel::Stdout, "false"));
    service.append(agent.id, operation, OutputChannel::Stdout, "true");
    EXPECT_FALSE(service.append(stranger.id, operation, OutputChannel::Stdout, "false"));
    service.finish(stranger.id, operation, 0, "");

    EXPECT_EQ("true", output(operation, OutputChannel::Stdout));
    EXPECT_EQ(OperationState::Running, stateOf(operation));
}

TEST_F(AgentServiceTest, OutputOfAnOperationThatNobodyKnowsIsRefused) {
    EXPECT_FALSE(service.append(agent.id, OperationId("../elsewhere"), OutputChannel::Stdout, "x"));
}

TEST_F(AgentServiceTest, EndIsRecordedOnce) {
    const OperationId operation = enqueueAndTake();
    service.append(agent.id, operation, OutputChannel::Stdout, "done");

    service.finish(agent.id, operation, 3, "");
    service.finish(agent.id, operation, {}, "a second end");

    const Operation ended = store.operations().find(operation).value();
    EXPECT_EQ(OperationState::Finished, ended.state);
    EXPECT_EQ(3, ended.exitCode);
    EXPECT_EQ("", ended.errorMessage);
}

TEST_F(AgentServiceTest, OutputBehindTheEndIsRefused) {
    const OperationId operation = enqueueAndTake();
    service.append(agent.id, operation, OutputChannel::Stdout, "before");
    service.finish(agent.id, operation, 0, "");

    EXPECT_FALSE(service.append(agent.id, operation, OutputChannel::Stdout, "behind"));
    EXPECT_EQ("before", output(operation, OutputChannel::Stdout));
}

TEST_F(AgentServiceTest, AgentThatStartsAnewHasGivenUpWhatItRan) {
    const OperationId operation = enqueueAndTake();
    service.append(agent.id, operation, OutputChannel::Stdout, "before");

    service.connect({"uuid-2", "secret", ""}, "host");

    EXPECT_EQ(OperationState::Abandoned, stateOf(operation));
    EXPECT_FALSE(service.append(agent.id, operation, OutputChannel::Stdout, "behind"));
}

TEST_F(AgentServiceTest, AgentThatConnectsOnceMoreGoesOnWithWhatItRuns) {
    const OperationId operation = enqueueAndTake();
    service.append(agent.id, operation, OutputChannel::Stdout, "before ");

    service.connect(sender, "host");

    EXPECT_TRUE(service.append(agent.id, operation, OutputChannel::Stdout, "and behind"));
    EXPECT_EQ("before and behind", output(operation, OutputChannel::Stdout));
}

TEST_F(AgentServiceTest, CommandsOfAReplyAreLimitedAndTheRestFollows) {
    for (std::size_t i = 0; i < AgentService::kCommandsOfAReply + 1; ++i) {
        NewOperation operation;
        operation.messageType = "collector:execute";
        store.operations().enqueue(agent.id, operation);
    }

    const std::vector<Operation> first = service.takeCommands(sender, agent.id).value();
    EXPECT_EQ(AgentService::kCommandsOfAReply, first.size());
    std::vector<OperationId> ids;
    for (const Operation& operation : first) {
        ids.push_back(operation.id);
    }
    store.operations().markWritten(ids);
    EXPECT_EQ(1U, service.takeCommands(sender, agent.id).value().size());
}

TEST_F(AgentServiceTest, MissingEndOfTheOutputIsToldWhenThereIsRoom) {
    const OperationId operation = enqueueAndTake();
    const std::filesystem::path file = outputs.path(operation, OutputChannel::Stdout);
    std::filesystem::create_directories(file);  // the disk takes nothing
    EXPECT_THROW(service.append(agent.id, operation, OutputChannel::Stdout, "missing"),
                 std::system_error);
    EXPECT_THROW(service.finish(agent.id, operation, 3, ""), std::system_error);
    EXPECT_EQ(OperationState::Finished, stateOf(operation));
    EXPECT_THROW(service.recordEnds(), std::system_error);

    std::filesystem::remove(file);
    service.recordEnds();
    service.recordEnds();

    EXPECT_EQ(3, store.operations().find(operation)->exitCode);
    EXPECT_EQ(OutputFiles::kGap, output(operation, OutputChannel::Stdout));
}

TEST_F(AgentServiceTest, ErrorOfAnAgentIsWrittenDown) {
    service.reportError(sender, agent.id, "Invalid message");

    const AuditLine line = store.audit().list({}, {}).items.at(0);
    EXPECT_EQ("agent.error", line.action);
    EXPECT_EQ("build-7", line.actor);
    EXPECT_EQ("Invalid message", line.detail);
}

TEST_F(AgentServiceTest, DisconnectIsSeen) {
    EXPECT_EQ(AgentPresence::Connected, store.agents().find(agent.id).value().presence);

    service.leave(sender, agent.id);

    EXPECT_EQ(AgentPresence::Left, store.agents().find(agent.id).value().presence);
}

TEST_F(AgentServiceTest, WhatWaitsForAnAgentThatHasLeftWaitsForItsNextStart) {
    const OperationId operation = enqueue();
    service.leave(sender, agent.id);

    EXPECT_FALSE(service.takeCommands(sender, agent.id));
    EXPECT_EQ(OperationState::Queued, stateOf(operation));

    const Sender again{"uuid-2", "secret", "192.0.2.1"};
    service.connect(again, "host");
    EXPECT_EQ(1U, service.takeCommands(again, agent.id).value().size());
}

TEST_F(AgentServiceTest, AgentIsTrustedUntilItsTokenIsRevoked) {
    EXPECT_TRUE(service.isTrusted(agent.id));
    EXPECT_TRUE(service.isTrusted(agent.id));
    EXPECT_FALSE(service.isTrusted(AgentId("none")));

    store.agents().revokeToken(token.id);

    EXPECT_FALSE(service.isTrusted(agent.id));
}

}  // namespace
}  // namespace kolvan::server::agents
