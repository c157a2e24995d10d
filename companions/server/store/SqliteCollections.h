#pragma once

#include "companions/server/store/SqliteParts.h"
#include "companions/server/store/Store.h"

namespace kolvan::server {

/// Collections and the names of their files in SQLite.
class SqliteCollections final : public CollectionStore {
public:
    explicit SqliteCollections(SqliteParts& ownParts) : parts(ownParts) {}

    Collection create(const NewCollection& collection, const NewOperation& start) override;
    std::optional<Collection> find(const CollectionId& collection) const override;
    Page<Collection> list(const CollectionFilter& filter, const PageRequest& page) const override;
    std::map<CollectionState, std::uint64_t> count() const override;

    Asked stop(const CollectionId& collection, const NewOperation& command) override;
    Asked cancel(const CollectionId& collection, const NewOperation& command) override;
    Asked command(const CollectionId& collection, const NewOperation& command) override;
    bool rename(const CollectionId& collection, const std::optional<std::string>& name,
                const std::optional<std::string>& note) override;
    Asked remove(const CollectionId& collection) override;

    bool beginFile(const CollectionId& collection, const std::string& name) override;
    bool completeFile(const CollectionId& collection, const std::string& name,
                      std::uint64_t sizeBytes) override;
    std::vector<CollectionFile> listFiles(const CollectionId& collection) const override;

private:
    /// Finds a collection and lets `ask(connection, collection, concerned)` decide, in one change.
    template <typename Ask>
    Asked change(const CollectionId& id, Ask ask);

    SqliteParts& parts;
};

}  // namespace kolvan::server
