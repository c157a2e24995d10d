#include "companions/server/store/SqliteStore.h"

#include "companions/server/store/Backup.h"
#include "companions/server/store/Schema.h"
#include "companions/server/store/SqliteAccounts.h"
#include "companions/server/store/SqliteAgents.h"
#include "companions/server/store/SqliteCollections.h"
#include "companions/server/store/SqliteOperations.h"
#include "companions/server/store/SqliteParts.h"
#include "companions/server/store/SqliteRegisters.h"

namespace kolvan::server {

struct SqliteStore::Members {
    SqliteParts parts;
    SqliteAgents agents{parts};
    SqliteOperations operations{parts};
    SqliteCollections collections{parts};
    SqliteAccounts accounts{parts};
    SqliteAudit audit{parts};
    SqlitePackages packages{parts};
    SqliteSettings settings{parts};

    Members(const std::string& file, const Clock& clock) : parts{Database(file), clock, {}} {}
};

SqliteStore::SqliteStore(const std::string& file, const Clock& clock)
    : members(std::make_unique<Members>(file, clock)) {}

SqliteStore::~SqliteStore() = default;

AgentStore& SqliteStore::agents() {
    return members->agents;
}

OperationStore& SqliteStore::operations() {
    return members->operations;
}

CollectionStore& SqliteStore::collections() {
    return members->collections;
}

AccountStore& SqliteStore::accounts() {
    return members->accounts;
}

AuditStore& SqliteStore::audit() {
    return members->audit;
}

PackageStore& SqliteStore::packages() {
    return members->packages;
}

SettingStore& SqliteStore::settings() {
    return members->settings;
}

WakeUps& SqliteStore::wakeUps() {
    return members->parts.wakeUps;
}

int SqliteStore::schemaVersion() const {
    // Opening has brought the file there.
    return currentSchemaVersion();
}

void SqliteStore::tryToWrite() {
    // A value that differs from the one before, so that it has to be written.
    const auto now = std::to_string(members->parts.clock.utc().time_since_epoch().count());
    members->parts.database.writeSoon([&](Connection& connection) {
        connection.run(
            "INSERT INTO settings (name, value) VALUES ('lastTryToWrite', ?1) "
            "ON CONFLICT DO UPDATE SET value = excluded.value",
            now);
    });
}

void SqliteStore::backUp(const std::string& file) {
    members->parts.database.read([&](Connection& connection) { backUpTo(file, connection); });
}

void SqliteStore::lookForOutsideChanges() {
    if (members->parts.database.wasChangedOutside()) {
        members->parts.wakeUps.wakeAll();
    }
}

}  // namespace kolvan::server
