#include "companions/server/store/WakeUpTable.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace kolvan::server {

namespace {

constexpr const char* kAccess = "access";

}  // namespace

/// Somebody's call, which can be ended from another thread while it runs.
class WakeUpTable::Waiter {
public:
    explicit Waiter(Wake ownWake) : wake(std::move(ownWake)) {}

    void call() {
        const std::lock_guard lock(callMutex);
        if (wake) {
            wake();
        }
    }

    /// Waits for a call that runs; none comes after it.
    void end() {
        const std::lock_guard lock(callMutex);
        wake = nullptr;
    }

private:
    std::mutex callMutex;  // guards wake, and keeps end() out while it runs; no store lock is held
    Wake wake;
};

struct WakeUpTable::Table {
    using Waiters = std::multimap<std::string, std::shared_ptr<Waiter>>;

    std::mutex mutex;  // guards waiters; no other lock is taken under it
    Waiters waiters;
};

class WakeUpTable::Entry final : public Subscription {
public:
    Entry(std::shared_ptr<Table> ownTable, const std::string& key, Wake wake)
        : table(std::move(ownTable)), waiter(std::make_shared<Waiter>(std::move(wake))) {
        const std::lock_guard lock(table->mutex);
        place = table->waiters.emplace(key, waiter);
    }

    ~Entry() override {
        {
            const std::lock_guard lock(table->mutex);
            table->waiters.erase(place);
        }
        waiter->end();
    }

    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

private:
    std::shared_ptr<Table> table;
    std::shared_ptr<Waiter> waiter;
    Table::Waiters::iterator place;
};

WakeUpTable::WakeUpTable() : table(std::make_shared<Table>()) {}

WakeUpTable::~WakeUpTable() = default;

std::unique_ptr<Subscription> WakeUpTable::onCommands(const AgentId& agent, Wake wake) {
    return std::make_unique<Entry>(table, "agent " + agent.text, std::move(wake));
}

std::unique_ptr<Subscription> WakeUpTable::onCollection(const CollectionId& collection, Wake wake) {
    return std::make_unique<Entry>(table, "collection " + collection.text, std::move(wake));
}

std::unique_ptr<Subscription> WakeUpTable::onEndOfAccess(Wake wake) {
    return std::make_unique<Entry>(table, kAccess, std::move(wake));
}

void WakeUpTable::wakeAgent(const AgentId& agent) const {
    wake("agent " + agent.text);
}

void WakeUpTable::wakeCollection(const CollectionId& collection) const {
    wake("collection " + collection.text);
}

void WakeUpTable::wakeForEndOfAccess() const {
    wake(kAccess);
}

void WakeUpTable::wakeAll() const {
    std::vector<std::shared_ptr<Waiter>> called;
    {
        const std::lock_guard lock(table->mutex);
        for (const auto& [key, waiter] : table->waiters) {
            called.push_back(waiter);
        }
    }
    for (const auto& waiter : called) {
        waiter->call();
    }
}

void WakeUpTable::wake(const std::string& key) const {
    std::vector<std::shared_ptr<Waiter>> called;
    {
        const std::lock_guard lock(table->mutex);
        const auto [begin, end] = table->waiters.equal_range(key);
        for (auto each = begin; each != end; ++each) {
            called.push_back(each->second);
        }
    }
    for (const auto& waiter : called) {
        waiter->call();
    }
}

}  // namespace kolvan::server
