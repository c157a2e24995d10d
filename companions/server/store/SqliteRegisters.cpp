#include "companions/server/store/SqliteRegisters.h"

#include "companions/server/store/Listing.h"

namespace kolvan::server {

namespace {

const std::string kSelectPackage = "SELECT architecture, name, size, hash, added FROM packages ";

Package readPackage(const Statement& row) {
    Package package;
    row.read(package.architecture, package.name, package.sizeBytes, package.hash, package.added);
    return package;
}

AuditLine readAuditLine(const Statement& row) {
    AuditLine line;
    row.read(line.number, line.time, line.actor, line.address, line.action, line.subject,
             line.detail);
    return line;
}

}  // namespace

void SqliteAudit::append(const AuditLine& line) {
    parts.database.write([&](Connection& connection) {
        connection.run(
            "INSERT INTO audit (time, actor, address, action, subject, detail) "
            "VALUES (?1, ?2, ?3, ?4, ?5, ?6)",
            parts.clock.utc(), line.actor, line.address, line.action, line.subject, line.detail);
    });
}

Page<AuditLine> SqliteAudit::list(const AuditFilter& filter, const PageRequest& page) const {
    Listing listing("SELECT sequence, time, actor, address, action, subject, detail FROM audit",
                    "sequence");
    if (!filter.actor.empty()) {
        listing.where("actor = ?", filter.actor);
    }
    if (!filter.action.empty()) {
        listing.where("instr(action || '.', ? || '.') = 1", filter.action);
    }
    return parts.database.read(
        [&](Connection& connection) { return listing.page(connection, page, readAuditLine); });
}

std::uint64_t SqliteAudit::keepNewest(std::uint64_t count) {
    return parts.database.write([&](Connection& connection) {
        return static_cast<std::uint64_t>(
            connection.run("DELETE FROM audit WHERE sequence <= "
                           "(SELECT sequence FROM audit ORDER BY sequence DESC LIMIT 1 OFFSET ?1)",
                           count));
    });
}

void SqlitePackages::put(const Package& package) {
    parts.database.write([&](Connection& connection) {
        connection.run("DELETE FROM packages WHERE architecture = ?1 OR name = ?2",
                       package.architecture, package.name);
        connection.run(
            "INSERT INTO packages (architecture, name, size, hash, added) "
            "VALUES (?1, ?2, ?3, ?4, ?5)",
            package.architecture, package.name, package.sizeBytes, package.hash, parts.clock.utc());
    });
}

std::optional<Package> SqlitePackages::find(const std::string& name) const {
    return parts.database.read([&](Connection& connection) {
        return readOne(connection.query(kSelectPackage + "WHERE name = ?1", name), readPackage);
    });
}

std::vector<Package> SqlitePackages::list() const {
    return parts.database.read([](Connection& connection) {
        return readAll(connection.query(kSelectPackage + "ORDER BY name"), readPackage);
    });
}

std::optional<std::string> SqliteSettings::find(std::string_view name) const {
    return parts.database.read([&](Connection& connection) {
        return connection.value<std::string>("SELECT value FROM settings WHERE name = ?1", name);
    });
}

void SqliteSettings::set(std::string_view name, const std::string& value) {
    parts.database.write([&](Connection& connection) {
        connection.run(
            "INSERT INTO settings (name, value) VALUES (?1, ?2) "
            "ON CONFLICT DO UPDATE SET value = excluded.value",
            name, value);
    });
}

}  // namespace kolvan::server
