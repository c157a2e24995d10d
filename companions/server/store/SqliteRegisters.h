#pragma once

#include "companions/server/store/SqliteParts.h"
#include "companions/server/store/Store.h"

namespace kolvan::server {

/// The audit in SQLite.
class SqliteAudit final : public AuditStore {
public:
    explicit SqliteAudit(SqliteParts& ownParts) : parts(ownParts) {}

    void append(const AuditLine& line) override;
    Page<AuditLine> list(const AuditFilter& filter, const PageRequest& page) const override;
    std::uint64_t keepNewest(std::uint64_t count) override;

private:
    SqliteParts& parts;
};

/// The list of packages in SQLite.
class SqlitePackages final : public PackageStore {
public:
    explicit SqlitePackages(SqliteParts& ownParts) : parts(ownParts) {}

    void put(const Package& package) override;
    std::optional<Package> find(const std::string& name) const override;
    std::vector<Package> list() const override;

private:
    SqliteParts& parts;
};

/// Settings in SQLite.
class SqliteSettings final : public SettingStore {
public:
    explicit SqliteSettings(SqliteParts& ownParts) : parts(ownParts) {}

    std::optional<std::string> find(std::string_view name) const override;
    void set(std::string_view name, const std::string& value) override;

private:
    SqliteParts& parts;
};

}  // namespace kolvan::server
