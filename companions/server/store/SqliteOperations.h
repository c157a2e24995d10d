#pragma once

#include "companions/server/store/SqliteParts.h"
#include "companions/server/store/Store.h"

namespace kolvan::server {

/// The agents' queues in SQLite.
class SqliteOperations final : public OperationStore {
public:
    explicit SqliteOperations(SqliteParts& ownParts)
        : parts(ownParts), opened(ownParts.clock.utc()) {}

    Operation enqueue(const AgentId& agent, const NewOperation& operation) override;
    std::vector<Operation> take(const AgentId& agent, std::size_t most) override;
    void giveBack(std::span<const OperationId> operations) override;
    void markWritten(std::span<const OperationId> operations) override;
    bool confirm(const AgentId& agent, const OperationId& operation) override;
    bool finish(const AgentId& agent, const OperationId& operation, std::optional<int> exitCode,
                const std::string& errorMessage, CollectionState outcome) override;
    std::optional<Operation> sendAgain(const OperationId& operation) override;
    void abandon(const AgentId& agent, const std::string& reason) override;

    std::optional<Operation> find(const OperationId& operation) const override;
    std::vector<Operation> listOpen(const AgentId& agent) const override;
    std::optional<Operation> findLatest(const AgentId& agent, OperationKind kind) const override;
    std::optional<Operation> findLatestDone(const AgentId& agent,
                                            OperationKind kind) const override;
    std::vector<OperationId> removeEnded(std::size_t keep) override;

    void setOutputSize(const OperationId& operation, OutputChannel channel,
                       std::uint64_t sizeBytes) override;
    std::uint64_t outputSize(const OperationId& operation, OutputChannel channel) const override;

private:
    SqliteParts& parts;
    const UtcTime opened;
};

}  // namespace kolvan::server
