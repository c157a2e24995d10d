#include "companions/server/store/OperationRows.h"

#include "companions/server/store/StoreError.h"

namespace kolvan::server {

const char* const kSelectOperation =
    "SELECT id, agent, kind, collection, message_type, parameters, state, queued, taken, written, "
    "confirmed, ended, exit_code, error_message FROM operations ";

Operation readOperation(const Statement& row) {
    Operation operation;
    row.read(operation.id, operation.agent, operation.kind, operation.collection,
             operation.messageType, operation.parameters, operation.state, operation.queued,
             operation.taken, operation.written, operation.confirmed, operation.ended,
             operation.exitCode, operation.errorMessage);
    return operation;
}

Operation queuedOperation(const NewOperation& operation, const AgentId& agent,
                          std::optional<CollectionId> collection, UtcTime now) {
    Operation row;
    row.id = operation.id;
    row.agent = agent;
    row.kind = operation.kind;
    row.collection = std::move(collection);
    row.messageType = operation.messageType;
    row.parameters = operation.parameters;
    row.queued = now;
    return row;
}

void insertOperation(Connection& connection, const Operation& operation, Concerned& concerned) {
    if (!connection.value<bool>("SELECT 1 FROM agents WHERE id = ?1", operation.agent)) {
        throw StoreError(StoreError::Reason::NotFound, "There is no such agent");
    }
    connection.run(
        "INSERT INTO operations (id, agent, kind, collection, message_type, parameters, state, "
        "queued, error_message) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, '')",
        operation.id, operation.agent, operation.kind, operation.collection, operation.messageType,
        operation.parameters, operation.state, operation.queued);
    concerned.agents.push_back(operation.agent);
}

std::optional<Operation> findOperation(Connection& connection, const OperationId& id) {
    return readOne(connection.query(std::string(kSelectOperation) + "WHERE id = ?1", id),
                   readOperation);
}

void abandonOperations(Connection& connection, const AgentId& agent, UtcTime now,
                       const std::string& reason, Concerned& concerned) {
    const std::vector<Operation> given = selectOperations(
        connection, "agent = ?1 AND state IN ('taken', 'running') ORDER BY sequence", agent);
    for (const Operation& operation : given) {
        connection.run(
            "UPDATE operations SET state = 'abandoned', ended = ?2, error_message = ?3 "
            "WHERE id = ?1",
            operation.id, now, reason);
        if (operation.kind == OperationKind::Collection) {
            concerned.agents.push_back(agent);
            endCollection(connection, *operation.collection, CollectionState::Failed, now, {},
                          reason, concerned);
        }
    }
}

void endCollection(Connection& connection, const CollectionId& collection, CollectionState outcome,
                   UtcTime now, std::optional<int> exitCode, const std::string& errorMessage,
                   Concerned& concerned) {
    const auto state = connection.value<CollectionState>(
        "SELECT state FROM collections WHERE id = ?1", collection);
    if (!state || !mayFollow(*state, outcome)) {
        return;
    }
    connection.run(
        "UPDATE collections SET state = ?2, ended = ?3, exit_code = ?4, "
        "error_message = ?5 WHERE id = ?1",
        collection, outcome, now, exitCode, errorMessage);
    connection.run(
        "UPDATE operations SET state = 'withdrawn', ended = ?2 "
        "WHERE collection = ?1 AND state = 'queued'",
        collection, now);
    concerned.collections.push_back(collection);
}

}  // namespace kolvan::server
