#pragma once

#include "companions/server/store/SqliteParts.h"

#include <optional>
#include <string>
#include <vector>

/// Changes of operations and their collections inside of a larger change. They add to `concerned`
/// whom it concerns.
namespace kolvan::server {

/// Adds a row at the end of the agent's queue.
/// @throws StoreError with `NotFound` when there is no such agent
void insertOperation(Connection& connection, const Operation& operation, Concerned& concerned);

/// A new operation as a row that waits in the queue.
Operation queuedOperation(const NewOperation& operation, const AgentId& agent,
                          std::optional<CollectionId> collection, UtcTime now);

/// The columns that `readOperation()` reads.
extern const char* const kSelectOperation;
Operation readOperation(const Statement& row);

std::optional<Operation> findOperation(Connection& connection, const OperationId& id);

/// Reads the operations that a condition of the form "agent = ?1" selects, in the order that it
/// asks for.
template <typename... Values>
std::vector<Operation> selectOperations(Connection& connection, const std::string& condition,
                                        const Values&... values) {
    return readAll(
        connection.query(std::string(kSelectOperation) + "WHERE " + condition, values...),
        readOperation);
}

/// Gives up what the agent has taken and not finished; its collections fail with `reason`.
void abandonOperations(Connection& connection, const AgentId& agent, UtcTime now,
                       const std::string& reason, Concerned& concerned);

/// Ends a collection that has not ended yet, and withdraws its commands that still wait in the
/// queue.
void endCollection(Connection& connection, const CollectionId& collection, CollectionState outcome,
                   UtcTime now, std::optional<int> exitCode, const std::string& errorMessage,
                   Concerned& concerned);

}  // namespace kolvan::server
