#pragma once

#include "companions/server/base/Clock.h"
#include "companions/server/store/Database.h"
#include "companions/server/store/WakeUpTable.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kolvan::server {

/// What the parts of the store share.
///
/// Threads: any. Wake-ups are called after a change, never inside of it.
struct SqliteParts {
    Database database;
    const Clock& clock;  // the store's user keeps it
    WakeUpTable wakeUps;
};

/// Collects whom a change concerns, to wake them once it has been made.
struct Concerned {
    std::vector<AgentId> agents;
    std::vector<CollectionId> collections;

    void wake(const WakeUpTable& wakeUps) const {
        for (const AgentId& agent : agents) {
            wakeUps.wakeAgent(agent);
        }
        for (const CollectionId& collection : collections) {
            wakeUps.wakeCollection(collection);
        }
    }
};

/// Reads every row of a statement with `readRow(statement)`.
template <typename ReadRow>
auto readAll(Statement statement, ReadRow readRow) {
    std::vector<decltype(readRow(statement))> records;
    while (statement.step()) {
        records.push_back(readRow(statement));
    }
    return records;
}

/// Reads the only row of a statement with `readRow(statement)`; nothing when it has none.
template <typename ReadRow>
auto readOne(Statement statement, ReadRow readRow) {
    using Record = decltype(readRow(statement));
    return statement.step() ? std::optional<Record>(readRow(statement)) : std::nullopt;
}

/// Reads rows of a value and how often there is one.
template <Named Value>
std::map<Value, std::uint64_t> countBy(Statement statement) {
    std::map<Value, std::uint64_t> counts;
    while (statement.step()) {
        Value value{};
        std::uint64_t count = 0;
        statement.read(value, count);
        counts[value] = count;
    }
    return counts;
}

}  // namespace kolvan::server
