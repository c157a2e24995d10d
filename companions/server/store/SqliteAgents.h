#pragma once

#include "companions/server/store/SqliteParts.h"
#include "companions/server/store/Store.h"

namespace kolvan::server {

/// Agents and their tokens in SQLite.
class SqliteAgents final : public AgentStore {
public:
    explicit SqliteAgents(SqliteParts& ownParts) : parts(ownParts) {}

    AgentToken addToken(const std::string& name, bool shared, const Sha256& hash) override;
    std::optional<AgentToken> findToken(const Sha256& hash) const override;
    std::vector<AgentToken> listTokens() const override;
    bool revokeToken(const AgentTokenId& token) override;
    bool hasValidToken(const AgentId& agent) const override;
    Standing standing(const AgentId& agent, const std::string& uuid) const override;

    Agent connect(const AgentConnect& connect) override;
    std::optional<Agent> find(const AgentId& agent) const override;
    std::optional<Agent> findStarted(const AgentTokenId& token,
                                     const std::string& uuid) const override;
    Page<Agent> list(const AgentFilter& filter, const PageRequest& page) const override;
    std::map<AgentPresence, std::uint64_t> count() const override;

    void noteSeen(std::span<const AgentId> agents) override;
    void markLost(const AgentId& agent, UtcTime lastSeen) override;
    void leave(const AgentId& agent, const std::string& uuid) override;
    void setCollectorVersion(const AgentId& agent, const std::string& version) override;

private:
    SqliteParts& parts;
};

}  // namespace kolvan::server
