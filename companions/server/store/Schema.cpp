#include "companions/server/store/Schema.h"

#include "companions/server/store/StoreError.h"
#include "companions/server/store/WriteTransaction.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace kolvan::server {

namespace {

// Marks the file as ours for whoever finds it: the letters "kvsv".
constexpr std::int64_t kApplicationId = 0x6B767376;

// Step n leads from version n to n + 1. A step that was released is never changed.
//
// "sequence" is the order in which things came to be. AUTOINCREMENT, so that no number comes again
// after the newest row was removed: pages of lists begin after a number.
constexpr std::array<const char*, 1> kSteps = {R"sql(
CREATE TABLE agent_tokens (
    sequence INTEGER PRIMARY KEY AUTOINCREMENT,
    id TEXT NOT NULL UNIQUE,
    name TEXT NOT NULL,
    shared INTEGER NOT NULL CHECK (shared IN (0, 1)),
    hash BLOB NOT NULL UNIQUE,
    made INTEGER NOT NULL,
    revoked INTEGER
) STRICT;
CREATE UNIQUE INDEX agent_tokens_in_use ON agent_tokens (name) WHERE revoked IS NULL;

CREATE TABLE agents (
    sequence INTEGER PRIMARY KEY AUTOINCREMENT,
    id TEXT NOT NULL UNIQUE,
    token_name TEXT NOT NULL,
    shared_host TEXT NOT NULL,  -- the host name of those with a shared token, otherwise empty
    name TEXT NOT NULL,
    host_name TEXT NOT NULL,
    token TEXT NOT NULL REFERENCES agent_tokens (id),
    uuid TEXT NOT NULL,
    address TEXT NOT NULL,
    presence TEXT NOT NULL,
    collector_version TEXT NOT NULL,
    first_seen INTEGER NOT NULL,
    last_seen INTEGER NOT NULL,
    UNIQUE (token_name, shared_host)
) STRICT;
CREATE INDEX agents_of_token ON agents (token);
CREATE INDEX agents_by_uuid ON agents (uuid);

CREATE TABLE collections (
    sequence INTEGER PRIMARY KEY AUTOINCREMENT,
    id TEXT NOT NULL UNIQUE,
    agent TEXT NOT NULL REFERENCES agents (id),
    name TEXT NOT NULL,
    note TEXT NOT NULL,
    made_by TEXT NOT NULL,
    pid INTEGER,
    command TEXT NOT NULL,
    profile TEXT NOT NULL,
    frequency INTEGER NOT NULL,
    duration INTEGER,
    children INTEGER NOT NULL CHECK (children IN (0, 1)),
    state TEXT NOT NULL,
    start TEXT NOT NULL REFERENCES operations (id) DEFERRABLE INITIALLY DEFERRED,
    made INTEGER NOT NULL,
    ended INTEGER,
    exit_code INTEGER,
    error_message TEXT NOT NULL
) STRICT;
CREATE INDEX collections_of_agent ON collections (agent, sequence);
CREATE INDEX collections_by_start ON collections (start);

CREATE TABLE operations (
    sequence INTEGER PRIMARY KEY AUTOINCREMENT,
    id TEXT NOT NULL UNIQUE,
    agent TEXT NOT NULL REFERENCES agents (id),
    kind TEXT NOT NULL,
    collection TEXT REFERENCES collections (id) ON DELETE CASCADE,
    message_type TEXT NOT NULL,
    parameters TEXT NOT NULL,
    state TEXT NOT NULL,
    queued INTEGER NOT NULL,
    taken INTEGER,
    written INTEGER,
    confirmed INTEGER,
    ended INTEGER,
    exit_code INTEGER,
    error_message TEXT NOT NULL
) STRICT;
CREATE INDEX operations_queued ON operations (agent, sequence) WHERE state = 'queued';
CREATE INDEX operations_open ON operations (agent, sequence)
    WHERE state IN ('queued', 'taken', 'running');
CREATE INDEX operations_by_kind ON operations (agent, kind, sequence);
CREATE INDEX operations_of_collection ON operations (collection);

CREATE TABLE outputs (
    operation TEXT NOT NULL REFERENCES operations (id) ON DELETE CASCADE,
    channel TEXT NOT NULL,
    size INTEGER NOT NULL,
    PRIMARY KEY (operation, channel)
) STRICT, WITHOUT ROWID;

CREATE TABLE files (
    collection TEXT NOT NULL REFERENCES collections (id) ON DELETE CASCADE,
    name TEXT NOT NULL,
    size INTEGER NOT NULL,
    complete INTEGER NOT NULL CHECK (complete IN (0, 1)),
    changed INTEGER NOT NULL,
    PRIMARY KEY (collection, name)
) STRICT, WITHOUT ROWID;

CREATE TABLE users (
    sequence INTEGER PRIMARY KEY AUTOINCREMENT,
    id TEXT NOT NULL UNIQUE,
    name TEXT NOT NULL UNIQUE,
    role TEXT NOT NULL,
    password_hash TEXT NOT NULL,
    made INTEGER NOT NULL,
    changed INTEGER NOT NULL
) STRICT;

CREATE TABLE first_login (
    only INTEGER PRIMARY KEY CHECK (only = 1),
    hash BLOB NOT NULL,
    valid_until INTEGER NOT NULL
) STRICT;

CREATE TABLE sessions (
    hash BLOB PRIMARY KEY NOT NULL,
    user TEXT NOT NULL REFERENCES users (id) ON DELETE CASCADE,
    cross_site_token TEXT NOT NULL,
    address TEXT NOT NULL,
    made INTEGER NOT NULL,
    last_used INTEGER NOT NULL
) STRICT, WITHOUT ROWID;
CREATE INDEX sessions_of_user ON sessions (user);

CREATE TABLE api_tokens (
    sequence INTEGER PRIMARY KEY AUTOINCREMENT,
    id TEXT NOT NULL UNIQUE,
    name TEXT NOT NULL,
    role TEXT NOT NULL,
    made_by TEXT NOT NULL,
    hash BLOB NOT NULL UNIQUE,
    made INTEGER NOT NULL,
    last_used INTEGER,
    revoked INTEGER
) STRICT;
CREATE UNIQUE INDEX api_tokens_in_use ON api_tokens (name) WHERE revoked IS NULL;

CREATE TABLE audit (
    sequence INTEGER PRIMARY KEY AUTOINCREMENT,
    time INTEGER NOT NULL,
    actor TEXT NOT NULL,
    address TEXT NOT NULL,
    action TEXT NOT NULL,
    subject TEXT NOT NULL,
    detail TEXT NOT NULL
) STRICT;

CREATE TABLE packages (
    architecture TEXT PRIMARY KEY NOT NULL,
    name TEXT NOT NULL UNIQUE,
    size INTEGER NOT NULL,
    hash BLOB NOT NULL,
    added INTEGER NOT NULL
) STRICT, WITHOUT ROWID;

CREATE TABLE settings (
    name TEXT PRIMARY KEY NOT NULL,
    value TEXT NOT NULL
) STRICT, WITHOUT ROWID;
)sql"};

std::int64_t versionOf(Connection& connection) {
    return connection.value<std::int64_t>("PRAGMA user_version").value_or(0);
}

void refuseWhatIsNotOurs(Connection& connection) {
    const auto mark = connection.value<std::int64_t>("PRAGMA application_id").value_or(0);
    const auto tables =
        connection.value<std::int64_t>("SELECT count(*) FROM sqlite_schema").value_or(0);
    if (mark != kApplicationId && (mark != 0 || tables != 0)) {
        throw StoreError(StoreError::Reason::Failed,
                         connection.file() + " is the database of another program");
    }
    const std::int64_t version = versionOf(connection);
    if (version > currentSchemaVersion()) {
        throw StoreError(StoreError::Reason::NewerSchema,
                         connection.file() + " was written by a newer kolvan-server (layout " +
                             std::to_string(version) + ", this one knows " +
                             std::to_string(currentSchemaVersion()) +
                             "): start that one, or put a backup from before it in the place");
    }
}

void refuseWhatIsDamaged(Connection& connection) {
    const auto found = connection.value<std::string>("PRAGMA quick_check(1)").value_or("");
    if (found != "ok") {
        throw StoreError(StoreError::Reason::Damaged, connection.damageText(found));
    }
}

}  // namespace

int currentSchemaVersion() noexcept {
    return static_cast<int>(kSteps.size());
}

void migrate(Connection& connection) {
    refuseWhatIsNotOurs(connection);
    refuseWhatIsDamaged(connection);
    while (versionOf(connection) < currentSchemaVersion()) {
        WriteTransaction transaction(connection);
        // Another process may have been faster while this one waited for its turn.
        const std::int64_t version = versionOf(connection);
        if (version < currentSchemaVersion()) {
            connection.script(kSteps[static_cast<std::size_t>(version)]);
            connection.script(("PRAGMA user_version=" + std::to_string(version + 1)).c_str());
            connection.script(("PRAGMA application_id=" + std::to_string(kApplicationId)).c_str());
        }
        transaction.commit();
    }
}

}  // namespace kolvan::server
