#include "companions/server/store/SqliteOperations.h"

#include "companions/server/store/OperationRows.h"
#include "companions/server/store/StoreError.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <string>
#include <utility>

namespace kolvan::server {

namespace {

// A reply takes less to be written or to fail, unless this cannot be recorded.
constexpr std::chrono::seconds kLongestReply{30};

/// Commands of an agent (?1) that may leave its queue now (?3): none as long as an earlier reply
/// may still give commands back, one that was begun since ?2. A clock that was put back holds up
/// nobody.
constexpr const char* kMayBeTaken =
    "agent = ?1 AND state = 'queued' AND NOT EXISTS "
    "(SELECT 1 FROM operations WHERE agent = ?1 AND state = 'taken' AND written IS NULL "
    "AND taken BETWEEN ?2 AND ?3) "
    "AND (kind <> 'collection' OR NOT EXISTS "
    "(SELECT 1 FROM operations WHERE agent = ?1 AND kind = 'collection' "
    "AND state IN ('taken', 'running')))";

/// Leaves the first one of several starts of collections.
void keepOneStart(std::vector<Operation>& operations) {
    const auto isStart = [](const Operation& operation) {
        return operation.kind == OperationKind::Collection;
    };
    const auto first = std::find_if(operations.begin(), operations.end(), isStart);
    if (first != operations.end()) {
        operations.erase(std::remove_if(std::next(first), operations.end(), isStart),
                         operations.end());
    }
}

bool isOpen(OperationState state) {
    // A queued one counts: its reply may have arrived although writing it was reported as failed.
    return state == OperationState::Queued || state == OperationState::Taken ||
           state == OperationState::Running;
}

/// Lets a start that was sent again carry its collection out after all, because its agent has
/// spoken of it before it spoke of the later one. @return whether this was possible
bool takeUpAgain(Connection& connection, const Operation& operation) {
    return operation.kind == OperationKind::Collection &&
           connection.run(
               "UPDATE collections SET start = ?1 WHERE id = ?2 AND state IN ('waiting', "
               "'stopping') "
               "AND NOT EXISTS "
               "(SELECT 1 FROM operations WHERE id = collections.start AND confirmed IS NOT NULL)",
               operation.id, operation.collection) != 0;
}

}  // namespace

Operation SqliteOperations::enqueue(const AgentId& agent, const NewOperation& operation) {
    Concerned concerned;
    Operation queued = queuedOperation(operation, agent, {}, parts.clock.utc());
    parts.database.write(
        [&](Connection& connection) { insertOperation(connection, queued, concerned); });
    concerned.wake(parts.wakeUps);
    return queued;
}

std::vector<Operation> SqliteOperations::take(const AgentId& agent, std::size_t most) {
    const auto mayBeTaken = [&](Connection& connection, std::size_t limit) {
        // Of a write that had to wait for its turn, this is later than what went before it.
        const UtcTime now = parts.clock.utc();
        // Replies of a server that was killed have failed, and nobody will say so.
        const UtcTime replySince = std::max(now - kLongestReply, opened);
        return selectOperations(connection,
                                std::string(kMayBeTaken) + " ORDER BY sequence LIMIT ?4", agent,
                                replySince, now, limit);
    };
    // Nearly every poll finds nothing: that must cost no turn at writing.
    const bool any = parts.database.read(
        [&](Connection& connection) { return !mayBeTaken(connection, 1).empty(); });
    if (!any || most == 0) {
        return {};
    }
    Concerned concerned;
    auto operations = parts.database.write([&](Connection& connection) {
        auto taken = mayBeTaken(connection, most);
        const UtcTime now = parts.clock.utc();
        keepOneStart(taken);
        for (Operation& operation : taken) {
            operation.state = OperationState::Taken;
            operation.taken = now;
            connection.run("UPDATE operations SET state = 'taken', taken = ?2 WHERE id = ?1",
                           operation.id, now);
            if (operation.collection) {
                concerned.collections.push_back(*operation.collection);
            }
        }
        return taken;
    });
    concerned.wake(parts.wakeUps);
    return operations;
}

void SqliteOperations::giveBack(std::span<const OperationId> operations) {
    Concerned concerned;
    parts.database.write([&](Connection& connection) {
        for (const OperationId& id : operations) {
            const auto operation = findOperation(connection, id);
            if (operation && operation->state == OperationState::Taken) {
                connection.run(
                    "UPDATE operations SET state = 'queued', taken = NULL, written = NULL "
                    "WHERE id = ?1",
                    id);
                concerned.agents.push_back(operation->agent);
                if (operation->collection) {
                    concerned.collections.push_back(*operation->collection);
                }
            }
        }
    });
    concerned.wake(parts.wakeUps);
}

void SqliteOperations::markWritten(std::span<const OperationId> operations) {
    Concerned concerned;
    parts.database.writeSoon([&](Connection& connection) {
        const UtcTime now = parts.clock.utc();
        for (const OperationId& id : operations) {
            const auto agent = connection.value<AgentId>(
                "UPDATE operations SET written = ?2 WHERE id = ?1 AND taken IS NOT NULL "
                "RETURNING agent",
                id, now);
            if (agent) {
                concerned.agents.push_back(*agent);  // what has come since may go
            }
        }
    });
    concerned.wake(parts.wakeUps);
}

bool SqliteOperations::confirm(const AgentId& agent, const OperationId& operation) {
    // Each message of an operation comes here, and only the first one has something to change.
    const auto known = find(operation);
    if (known && known->agent == agent && known->state == OperationState::Running) {
        return true;
    }
    Concerned concerned;
    const bool open = parts.database.write([&](Connection& connection) {
        const auto found = findOperation(connection, operation);
        if (!found || found->agent != agent) {
            return false;
        }
        if (found->state == OperationState::Running) {
            return true;
        }
        if (!isOpen(found->state) &&
            (found->state != OperationState::Abandoned || !takeUpAgain(connection, *found))) {
            return false;
        }
        connection.run(
            "UPDATE operations SET state = 'running', confirmed = ?2, ended = NULL, "
            "error_message = '' WHERE id = ?1",
            operation, parts.clock.utc());
        if (found->collection) {
            connection.run(
                "UPDATE collections SET state = 'running' "
                "WHERE id = ?1 AND start = ?2 AND state = 'waiting'",
                found->collection, operation);
            concerned.collections.push_back(*found->collection);
        }
        return true;
    });
    concerned.wake(parts.wakeUps);
    return open;
}

bool SqliteOperations::finish(const AgentId& agent, const OperationId& operation,
                              std::optional<int> exitCode, const std::string& errorMessage,
                              CollectionState outcome) {
    Concerned concerned;
    const bool finished = parts.database.write([&](Connection& connection) {
        const auto found = findOperation(connection, operation);
        if (!found || found->agent != agent || !isOpen(found->state)) {
            return false;
        }
        const UtcTime now = parts.clock.utc();
        connection.run(
            "UPDATE operations SET state = 'finished', ended = ?2, exit_code = ?3, "
            "error_message = ?4, confirmed = coalesce(confirmed, ?2) WHERE id = ?1",
            operation, now, exitCode, errorMessage);
        if (found->kind == OperationKind::Collection) {
            concerned.agents.push_back(agent);  // the next start may go
        }
        if (found->collection) {
            concerned.collections.push_back(*found->collection);
            if (connection.value<bool>("SELECT 1 FROM collections WHERE id = ?1 AND start = ?2",
                                       found->collection, operation)) {
                endCollection(connection, *found->collection, outcome, now, exitCode, errorMessage,
                              concerned);
            }
        }
        return true;
    });
    concerned.wake(parts.wakeUps);
    return finished;
}

std::optional<Operation> SqliteOperations::sendAgain(const OperationId& operation) {
    Concerned concerned;
    auto again = parts.database.write([&](Connection& connection) -> std::optional<Operation> {
        const auto found = findOperation(connection, operation);
        if (!found || found->state != OperationState::Taken) {
            return std::nullopt;
        }
        const UtcTime now = parts.clock.utc();
        Operation copy = queuedOperation(
            {OperationId::make(), found->kind, found->messageType, found->parameters}, found->agent,
            found->collection, now);
        insertOperation(connection, copy, concerned);
        connection.run(
            "UPDATE operations SET state = 'abandoned', ended = ?2, error_message = ?3 "
            "WHERE id = ?1",
            operation, now, "It was sent again");
        if (found->collection) {
            connection.run("UPDATE collections SET start = ?3 WHERE id = ?1 AND start = ?2",
                           found->collection, operation, copy.id);
            concerned.collections.push_back(*found->collection);
        }
        return copy;
    });
    concerned.wake(parts.wakeUps);
    return again;
}

void SqliteOperations::abandon(const AgentId& agent, const std::string& reason) {
    Concerned concerned;
    parts.database.write([&](Connection& connection) {
        abandonOperations(connection, agent, parts.clock.utc(), reason, concerned);
    });
    concerned.wake(parts.wakeUps);
}

std::optional<Operation> SqliteOperations::find(const OperationId& operation) const {
    return parts.database.read(
        [&](Connection& connection) { return findOperation(connection, operation); });
}

std::vector<Operation> SqliteOperations::listOpen(const AgentId& agent) const {
    return parts.database.read([&](Connection& connection) {
        return selectOperations(
            connection, "agent = ?1 AND state IN ('queued', 'taken', 'running') ORDER BY sequence",
            agent);
    });
}

std::optional<Operation> SqliteOperations::findLatest(const AgentId& agent,
                                                      OperationKind kind) const {
    return parts.database.read([&](Connection& connection) {
        return readOne(
            connection.query(std::string(kSelectOperation) + "WHERE agent = ?1 AND kind = ?2 "
                                                             "ORDER BY sequence DESC LIMIT 1",
                             agent, kind),
            readOperation);
    });
}

std::optional<Operation> SqliteOperations::findLatestDone(const AgentId& agent,
                                                          OperationKind kind) const {
    return parts.database.read([&](Connection& connection) {
        return readOne(
            connection.query(std::string(kSelectOperation) +
                                 "WHERE agent = ?1 AND kind = ?2 AND state = 'finished' AND "
                                 "exit_code = 0 ORDER BY sequence DESC LIMIT 1",
                             agent, kind),
            readOperation);
    });
}

std::vector<OperationId> SqliteOperations::removeEnded(std::size_t keep) {
    return parts.database.write([&](Connection& connection) {
        return readAll(
            connection.query(
                "DELETE FROM operations WHERE sequence IN (SELECT sequence FROM "
                "(SELECT sequence, row_number() OVER "
                "(PARTITION BY agent, kind ORDER BY sequence DESC) AS place FROM operations "
                "WHERE collection IS NULL AND ended IS NOT NULL) WHERE place > ?1) RETURNING id",
                keep),
            [](const Statement& row) {
                OperationId id;
                row.read(id);
                return id;
            });
    });
}

void SqliteOperations::setOutputSize(const OperationId& operation, OutputChannel channel,
                                     std::uint64_t sizeBytes) {
    Concerned concerned;
    parts.database.writeSoon([&](Connection& connection) {
        const std::int64_t changed = connection.run(
            "INSERT INTO outputs (operation, channel, size) "
            "SELECT id, ?2, ?3 FROM operations WHERE id = ?1 "
            "ON CONFLICT DO UPDATE SET size = excluded.size",
            operation, channel, sizeBytes);
        if (changed == 0) {
            return;
        }
        const auto collection = connection.value<std::optional<CollectionId>>(
            "SELECT collection FROM operations WHERE id = ?1", operation);
        if (collection && *collection) {
            concerned.collections.push_back(**collection);
        }
    });
    concerned.wake(parts.wakeUps);
}

std::uint64_t SqliteOperations::outputSize(const OperationId& operation,
                                           OutputChannel channel) const {
    return parts.database.read([&](Connection& connection) {
        return connection
            .value<std::uint64_t>("SELECT size FROM outputs WHERE operation = ?1 AND channel = ?2",
                                  operation, channel)
            .value_or(0);
    });
}

}  // namespace kolvan::server
