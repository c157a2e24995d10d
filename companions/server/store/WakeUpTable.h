#pragma once

#include "companions/server/store/Store.h"

#include <memory>
#include <mutex>
#include <string>

namespace kolvan::server {

/// Wake-ups inside this process.
///
/// Threads: any member from any thread. It outlives its subscriptions' use: one that is left over
/// when the table goes is never called again.
class WakeUpTable final : public WakeUps {
public:
    WakeUpTable();
    ~WakeUpTable() override;

    std::unique_ptr<Subscription> onCommands(const AgentId& agent, Wake wake) override;
    std::unique_ptr<Subscription> onCollection(const CollectionId& collection, Wake wake) override;
    std::unique_ptr<Subscription> onEndOfAccess(Wake wake) override;

    /// Calls whoever waits for this agent's commands.
    void wakeAgent(const AgentId& agent) const;

    /// Calls whoever waits for this collection.
    void wakeCollection(const CollectionId& collection) const;

    /// Calls whoever wants to know that somebody's access has ended.
    void wakeForEndOfAccess() const;

    /// Calls everybody.
    void wakeAll() const;

private:
    class Waiter;
    class Entry;
    struct Table;

    void wake(const std::string& key) const;

    std::shared_ptr<Table> table;  // shared with the subscriptions, which take themselves out
};

}  // namespace kolvan::server
