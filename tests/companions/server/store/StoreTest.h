#pragma once

#include "companions/server/store/SqliteStore.h"
#include "tests/companions/server/support/FailureOf.h"
#include "tests/companions/server/support/SetClock.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace kolvan::server {

/// A store of its own for each case, with short ways to what many cases need first.
class StoreTest : public testing::Test {
protected:
    const test::TemporaryDirectory directory;
    const std::string file = directory.entry("kolvan.sqlite");
    test::SetClock clock;
    std::unique_ptr<SqliteStore> store = std::make_unique<SqliteStore>(file, clock);

    /// As after a restart of the server.
    void reopen() {
        store.reset();
        store = std::make_unique<SqliteStore>(file, clock);
    }

    AgentToken addToken(const std::string& name, bool shared = false) {
        return store->agents().addToken(name, shared, sha256("kat_" + name));
    }

    Agent connect(const AgentToken& token, const std::string& uuid = "start 1",
                  const std::string& hostName = "host") {
        return store->agents().connect({token.id, hostName, uuid, "192.0.2.1"});
    }

    /// Connects an agent with a token of its own.
    Agent addAgent(const std::string& name = "agent") { return connect(addToken(name)); }

    Operation enqueue(const AgentId& agent, const std::string& messageType = "collector:execute") {
        return store->operations().enqueue(
            agent, {OperationId::make(), OperationKind::Execute, messageType, R"({"args":"a b"})"});
    }

    /// Takes everything that is queued, in a reply whose fate is open.
    /// @return the ids in their order
    std::vector<OperationId> beginReply(const AgentId& agent, std::size_t most = 100) {
        std::vector<OperationId> ids;
        for (const Operation& operation : store->operations().take(agent, most)) {
            ids.push_back(operation.id);
        }
        return ids;
    }

    /// As `beginReply`, but the reply is written.
    std::vector<OperationId> take(const AgentId& agent, std::size_t most = 100) {
        const std::vector<OperationId> ids = beginReply(agent, most);
        store->operations().markWritten(ids);
        return ids;
    }

    static NewOperation startOfCollection() {
        return {OperationId::make(), OperationKind::Collection, "collector:collection:start", "{}"};
    }

    static NewOperation collectionCommand(const std::string& command = "stop") {
        return {OperationId::make(), OperationKind::CollectionCommand,
                "collector:collection:command", R"({"command":")" + command + R"("})"};
    }

    Collection addCollection(const AgentId& agent, const std::string& name = "collection") {
        NewCollection wanted;
        wanted.agent = agent;
        wanted.name = name;
        wanted.madeBy = "anna";
        wanted.request.pid = 4711;
        return store->collections().create(wanted, startOfCollection());
    }

    /// A collection of which its agent has spoken.
    Collection addRunningCollection(const AgentId& agent) {
        const Collection collection = addCollection(agent);
        take(agent);
        store->operations().confirm(agent, collection.start);
        return find(collection);
    }

    void finish(const Collection& collection, CollectionState outcome = CollectionState::Done) {
        store->operations().finish(collection.agent, collection.start, 0, "", outcome);
    }

    Collection find(const Collection& collection) {
        return store->collections().find(collection.id).value();
    }
    Operation find(const Operation& operation) {
        return store->operations().find(operation.id).value();
    }
};

}  // namespace kolvan::server
