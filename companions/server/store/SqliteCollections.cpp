#include "companions/server/store/SqliteCollections.h"

#include "companions/server/store/Listing.h"
#include "companions/server/store/OperationRows.h"

namespace kolvan::server {

namespace {

constexpr char kSelect[] =
    "SELECT collections.sequence, collections.id, collections.agent, name, note, made_by, pid, "
    "command, profile, frequency, duration, children, collections.state, start, operations.taken, "
    "operations.confirmed, made, collections.ended, collections.exit_code, "
    "collections.error_message "
    "FROM collections JOIN operations ON operations.id = collections.start ";

Collection readCollection(const Statement& row) {
    Collection collection;
    std::int64_t sequence = 0;
    CollectionRequest& request = collection.request;
    row.read(sequence, collection.id, collection.agent, collection.name, collection.note,
             collection.madeBy, request.pid, request.command, request.profile, request.frequency,
             request.duration, request.children, collection.state, collection.start,
             collection.startTaken, collection.startConfirmed, collection.made, collection.ended,
             collection.exitCode, collection.errorMessage);
    return collection;
}

std::optional<Collection> findCollection(Connection& connection, const CollectionId& id) {
    return readOne(connection.query(std::string(kSelect) + "WHERE collections.id = ?1", id),
                   readCollection);
}

void queueCommand(Connection& connection, const Collection& collection, const NewOperation& command,
                  UtcTime now, Concerned& concerned) {
    insertOperation(connection, queuedOperation(command, collection.agent, collection.id, now),
                    concerned);
    concerned.collections.push_back(collection.id);
}

void setState(Connection& connection, const CollectionId& id, CollectionState state) {
    connection.run("UPDATE collections SET state = ?2 WHERE id = ?1", id, state);
}

}  // namespace

template <typename Ask>
Asked SqliteCollections::change(const CollectionId& id, Ask ask) {
    Concerned concerned;
    const Asked answer = parts.database.write([&](Connection& connection) {
        const auto collection = findCollection(connection, id);
        return collection ? ask(connection, *collection, concerned) : Asked::NotFound;
    });
    concerned.wake(parts.wakeUps);
    return answer;
}

Collection SqliteCollections::create(const NewCollection& collection, const NewOperation& start) {
    Concerned concerned;
    auto created = parts.database.write([&](Connection& connection) {
        const UtcTime now = parts.clock.utc();
        const CollectionRequest& request = collection.request;
        // Its row and that of its start name each other: both are looked at when both are there.
        connection.script("PRAGMA defer_foreign_keys=ON");
        insertOperation(connection, queuedOperation(start, collection.agent, collection.id, now),
                        concerned);
        connection.run(
            "INSERT INTO collections (id, agent, name, note, made_by, pid, command, profile, "
            "frequency, duration, children, state, start, made, error_message) "
            "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, '')",
            collection.id, collection.agent, collection.name, collection.note, collection.madeBy,
            request.pid, request.command, request.profile, request.frequency, request.duration,
            request.children, CollectionState::Waiting, start.id, now);
        return findCollection(connection, collection.id).value();
    });
    concerned.wake(parts.wakeUps);
    return created;
}

std::optional<Collection> SqliteCollections::find(const CollectionId& collection) const {
    return parts.database.read(
        [&](Connection& connection) { return findCollection(connection, collection); });
}

Page<Collection> SqliteCollections::list(const CollectionFilter& filter,
                                         const PageRequest& page) const {
    Listing listing(kSelect, "collections.sequence");
    if (filter.agent) {
        listing.where("collections.agent = ?", *filter.agent);
    }
    if (!filter.states.empty()) {
        std::vector<std::string> states;
        for (const CollectionState state : filter.states) {
            states.emplace_back(nameOf(state));
        }
        listing.where("collections.state IN (SELECT value FROM json_each(?))", states);
    }
    if (!filter.text.empty()) {
        listing.where("instr(lower(name || char(10) || note), lower(?)) > 0", filter.text);
    }
    if (!filter.madeBy.empty()) {
        listing.where("made_by = ?", filter.madeBy);
    }
    if (filter.madeFrom) {
        listing.where("made >= ?", *filter.madeFrom);
    }
    if (filter.madeUntil) {
        listing.where("made < ?", *filter.madeUntil);
    }
    return parts.database.read(
        [&](Connection& connection) { return listing.page(connection, page, readCollection); });
}

std::map<CollectionState, std::uint64_t> SqliteCollections::count() const {
    return parts.database.read([](Connection& connection) {
        return countBy<CollectionState>(
            connection.query("SELECT state, count(*) FROM collections GROUP BY state"));
    });
}

Asked SqliteCollections::stop(const CollectionId& collection, const NewOperation& command) {
    return change(collection,
                  [&](Connection& connection, const Collection& found, Concerned& concerned) {
                      if (found.state != CollectionState::Running) {
                          return Asked::TooLate;
                      }
                      setState(connection, found.id, CollectionState::Stopping);
                      queueCommand(connection, found, command, parts.clock.utc(), concerned);
                      return Asked::Yes;
                  });
}

Asked SqliteCollections::cancel(const CollectionId& collection, const NewOperation& command) {
    return change(collection,
                  [&](Connection& connection, const Collection& found, Concerned& concerned) {
                      if (isFinal(found.state)) {
                          return Asked::TooLate;
                      }
                      if (!found.startTaken && !found.startConfirmed) {
                          endCollection(connection, found.id, CollectionState::Cancelled,
                                        parts.clock.utc(), {}, "", concerned);
                          return Asked::Yes;
                      }
                      setState(connection, found.id, CollectionState::Stopping);
                      queueCommand(connection, found, command, parts.clock.utc(), concerned);
                      return Asked::Yes;
                  });
}

Asked SqliteCollections::command(const CollectionId& collection, const NewOperation& command) {
    return change(collection,
                  [&](Connection& connection, const Collection& found, Concerned& concerned) {
                      if (found.state != CollectionState::Running) {
                          return Asked::TooLate;
                      }
                      queueCommand(connection, found, command, parts.clock.utc(), concerned);
                      return Asked::Yes;
                  });
}

bool SqliteCollections::rename(const CollectionId& collection,
                               const std::optional<std::string>& name,
                               const std::optional<std::string>& note) {
    const bool found = parts.database.write([&](Connection& connection) {
        return connection.run(
                   "UPDATE collections SET name = coalesce(?2, name), "
                   "note = coalesce(?3, note) WHERE id = ?1",
                   collection, name, note) != 0;
    });
    parts.wakeUps.wakeCollection(collection);
    return found;
}

Asked SqliteCollections::remove(const CollectionId& collection) {
    return change(collection,
                  [](Connection& connection, const Collection& found, Concerned& concerned) {
                      if (!isFinal(found.state)) {
                          return Asked::TooLate;
                      }
                      connection.run("DELETE FROM collections WHERE id = ?1", found.id);
                      concerned.collections.push_back(found.id);
                      return Asked::Yes;
                  });
}

bool SqliteCollections::beginFile(const CollectionId& collection, const std::string& name) {
    const bool known = parts.database.writeSoon([&](Connection& connection) {
        return connection.run(
                   "INSERT INTO files (collection, name, size, complete, changed) "
                   "SELECT id, ?2, 0, 0, ?3 FROM collections WHERE id = ?1 "
                   "ON CONFLICT DO UPDATE SET size = 0, complete = 0, changed = excluded.changed",
                   collection, name, parts.clock.utc()) != 0;
    });
    parts.wakeUps.wakeCollection(collection);
    return known;
}

bool SqliteCollections::completeFile(const CollectionId& collection, const std::string& name,
                                     std::uint64_t sizeBytes) {
    const bool begun = parts.database.writeSoon([&](Connection& connection) {
        return connection.run(
                   "UPDATE files SET size = ?3, complete = 1, changed = ?4 "
                   "WHERE collection = ?1 AND name = ?2",
                   collection, name, sizeBytes, parts.clock.utc()) != 0;
    });
    parts.wakeUps.wakeCollection(collection);
    return begun;
}

std::vector<CollectionFile> SqliteCollections::listFiles(const CollectionId& collection) const {
    return parts.database.read([&](Connection& connection) {
        return readAll(connection.query("SELECT name, size, complete, changed FROM files "
                                        "WHERE collection = ?1 ORDER BY name",
                                        collection),
                       [](const Statement& row) {
                           CollectionFile file;
                           row.read(file.name, file.sizeBytes, file.complete, file.changed);
                           return file;
                       });
    });
}

}  // namespace kolvan::server
