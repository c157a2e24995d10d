#pragma once

#include "companions/server/base/Clock.h"
#include "companions/server/store/Store.h"

#include <memory>
#include <string>

namespace kolvan::server {

struct SqliteParts;

/// The store in one SQLite file. Several processes may use it at once, for instance a server and a
/// command that adds a user.
class SqliteStore final : public Store {
public:
    /// Opens a file, which is made when there is none, and brings it to the current layout.
    /// @param clock must live as long as the store
    /// @throws StoreError: `NewerSchema`, `Damaged` with what to do, or why it cannot be opened
    SqliteStore(const std::string& file, const Clock& clock);
    ~SqliteStore() override;

    AgentStore& agents() override;
    OperationStore& operations() override;
    CollectionStore& collections() override;
    AccountStore& accounts() override;
    AuditStore& audit() override;
    PackageStore& packages() override;
    SettingStore& settings() override;
    WakeUps& wakeUps() override;

    int schemaVersion() const override;
    void tryToWrite() override;
    void backUp(const std::string& file) override;

    /// Looks whether another process has changed anything since the last call, and calls everybody
    /// who waits if so. Wake-ups of this process's own changes need no look. To be called once a
    /// second or so; takes microseconds.
    /// @throws StoreError
    void lookForOutsideChanges();

private:
    struct Members;
    std::unique_ptr<Members> members;
};

}  // namespace kolvan::server
