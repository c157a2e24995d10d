#pragma once

#include "companions/server/agents/AgentService.h"
#include "companions/server/store/SqliteStore.h"
#include "tests/companions/server/support/SetClock.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

namespace kolvan::server::agents {

/// What agents have to do with the server, over a real store, and one agent that has connected.
class ServiceWithAgent : public testing::Test {
protected:
    ServiceWithAgent() {
        token = store.agents().addToken("build-7", false, sha256("secret"));
        agent = service.connect(sender, "host").value();
    }

    /// An operation that waits for the agent to ask for it.
    OperationId enqueue() {
        NewOperation operation;
        operation.messageType = "collector:execute";
        store.operations().enqueue(agent.id, operation);
        return operation.id;
    }

    test::TemporaryDirectory place;
    test::SetClock clock;
    SqliteStore store{place.path() / "kolvan.db", clock};
    const OutputFiles outputs{place.path() / "output"};
    RefusalLog refusals{store.audit(), clock};
    Tokens tokens{store, clock, refusals};
    AgentService service{store, tokens, outputs};
    const Sender sender{"uuid-1", "secret", "192.0.2.1"};
    AgentToken token;
    Agent agent;
};

}  // namespace kolvan::server::agents
