#include "companions/server/store/SqliteAgents.h"

#include "companions/server/store/Listing.h"
#include "companions/server/store/OperationRows.h"
#include "companions/server/store/StoreError.h"

namespace kolvan::server {

namespace {

constexpr char kSelectToken[] = "SELECT id, name, shared, hash, made, revoked FROM agent_tokens ";

AgentToken readToken(const Statement& row) {
    AgentToken token;
    row.read(token.id, token.name, token.shared, token.hash, token.made, token.revoked);
    return token;
}

constexpr char kSelectAgent[] =
    "SELECT sequence, id, name, host_name, token, uuid, address, presence, collector_version, "
    "first_seen, last_seen FROM agents ";

Agent readAgent(const Statement& row) {
    Agent agent;
    std::int64_t sequence = 0;
    row.read(sequence, agent.id, agent.name, agent.hostName, agent.token, agent.uuid, agent.address,
             agent.presence, agent.collectorVersion, agent.firstSeen, agent.lastSeen);
    return agent;
}

std::optional<Agent> findAgent(Connection& connection, const AgentId& id) {
    return readOne(connection.query(std::string(kSelectAgent) + "WHERE id = ?1", id), readAgent);
}

}  // namespace

AgentToken SqliteAgents::addToken(const std::string& name, bool shared, const Sha256& hash) {
    AgentToken token{AgentTokenId::make(), name, shared, hash, parts.clock.utc(), {}};
    parts.database.write([&](Connection& connection) {
        if (connection.value<bool>("SELECT 1 FROM agent_tokens WHERE name = ?1 AND revoked IS NULL",
                                   name)) {
            throw StoreError(StoreError::Reason::NameTaken,
                             "There is an agent token with the name " + name);
        }
        connection.run(
            "INSERT INTO agent_tokens (id, name, shared, hash, made) "
            "VALUES (?1, ?2, ?3, ?4, ?5)",
            token.id, token.name, token.shared, token.hash, token.made);
    });
    return token;
}

std::optional<AgentToken> SqliteAgents::findToken(const Sha256& hash) const {
    return parts.database.read([&](Connection& connection) {
        return readOne(connection.query(
                           std::string(kSelectToken) + "WHERE hash = ?1 AND revoked IS NULL", hash),
                       readToken);
    });
}

std::vector<AgentToken> SqliteAgents::listTokens() const {
    return parts.database.read([](Connection& connection) {
        return readAll(connection.query(std::string(kSelectToken) + "ORDER BY sequence"),
                       readToken);
    });
}

bool SqliteAgents::revokeToken(const AgentTokenId& token) {
    Concerned concerned;
    const bool revoked = parts.database.write([&](Connection& connection) {
        concerned.agents =
            readAll(connection.query("SELECT id FROM agents WHERE token = ?1", token),
                    [](const Statement& row) {
                        AgentId agent;
                        row.read(agent);
                        return agent;
                    });
        return connection.run(
                   "UPDATE agent_tokens SET revoked = ?2 WHERE id = ?1 AND revoked IS NULL", token,
                   parts.clock.utc()) != 0;
    });
    if (revoked) {
        parts.wakeUps.wakeForEndOfAccess();
        concerned.wake(parts.wakeUps);
    }
    return revoked;
}

bool SqliteAgents::hasValidToken(const AgentId& agent) const {
    return parts.database.read([&](Connection& connection) {
        return connection
            .value<bool>(
                "SELECT agent_tokens.revoked IS NULL FROM agents JOIN agent_tokens "
                "ON agent_tokens.id = agents.token WHERE agents.id = ?1",
                agent)
            .value_or(false);
    });
}

Standing SqliteAgents::standing(const AgentId& agent, const std::string& uuid) const {
    return parts.database.read([&](Connection& connection) {
        const auto left = connection.value<bool>(
            "SELECT agents.presence = ?3 AND agents.uuid = ?2 FROM agents JOIN agent_tokens "
            "ON agent_tokens.id = agents.token WHERE agents.id = ?1 AND agent_tokens.revoked IS "
            "NULL",
            agent, uuid, AgentPresence::Left);
        if (!left) {
            return Standing::Revoked;
        }
        return *left ? Standing::Left : Standing::Trusted;
    });
}

Agent SqliteAgents::connect(const AgentConnect& connect) {
    Concerned concerned;
    Agent agent = parts.database.write([&](Connection& connection) {
        const auto token = readOne(
            connection.query(std::string(kSelectToken) + "WHERE id = ?1 AND revoked IS NULL",
                             connect.token),
            readToken);
        if (!token) {
            throw StoreError(StoreError::Reason::NotFound, "There is no such agent token");
        }
        const UtcTime now = parts.clock.utc();
        const std::string sharedHost = token->shared ? connect.hostName : "";
        // A token that was shared once and is no more leads to no machine of that time.
        const auto known =
            readOne(connection.query(
                        std::string(kSelectAgent) + "WHERE token_name = ?1 AND shared_host = ?2",
                        token->name, sharedHost),
                    readAgent);
        if (!known) {
            const auto id = AgentId::make();
            connection.run(
                "INSERT INTO agents (id, token_name, shared_host, name, host_name, token, uuid, "
                "address, presence, collector_version, first_seen, last_seen) "
                "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, '', ?10, ?10)",
                id, token->name, sharedHost, token->shared ? connect.hostName : token->name,
                connect.hostName, token->id, connect.uuid, connect.address,
                AgentPresence::Connected, now);
            return findAgent(connection, id).value();
        }
        if (known->uuid != connect.uuid) {
            abandonOperations(connection, known->id, now, "The agent has started anew", concerned);
        }
        connection.run(
            "UPDATE agents SET host_name = ?2, token = ?3, uuid = ?4, address = ?5, "
            "presence = ?6, last_seen = ?7 WHERE id = ?1",
            known->id, connect.hostName, token->id, connect.uuid, connect.address,
            AgentPresence::Connected, now);
        return findAgent(connection, known->id).value();
    });
    concerned.wake(parts.wakeUps);
    return agent;
}

std::optional<Agent> SqliteAgents::find(const AgentId& agent) const {
    return parts.database.read(
        [&](Connection& connection) { return findAgent(connection, agent); });
}

std::optional<Agent> SqliteAgents::findStarted(const AgentTokenId& token,
                                               const std::string& uuid) const {
    return parts.database.read([&](Connection& connection) {
        return readOne(
            connection.query(std::string(kSelectAgent) + "WHERE uuid = ?1 AND token = ?2", uuid,
                             token),
            readAgent);
    });
}

Page<Agent> SqliteAgents::list(const AgentFilter& filter, const PageRequest& page) const {
    Listing listing(kSelectAgent, "sequence");
    if (filter.presence) {
        listing.where("presence = ?", *filter.presence);
    }
    if (!filter.text.empty()) {
        listing.where("instr(lower(name || char(10) || host_name), lower(?)) > 0", filter.text);
    }
    return parts.database.read(
        [&](Connection& connection) { return listing.page(connection, page, readAgent); });
}

std::map<AgentPresence, std::uint64_t> SqliteAgents::count() const {
    return parts.database.read([](Connection& connection) {
        return countBy<AgentPresence>(
            connection.query("SELECT presence, count(*) FROM agents GROUP BY presence"));
    });
}

void SqliteAgents::noteSeen(std::span<const AgentId> agents) {
    parts.database.writeSoon([&](Connection& connection) {
        const UtcTime now = parts.clock.utc();
        for (const AgentId& agent : agents) {
            connection.run(
                "UPDATE agents SET last_seen = ?2, presence = "
                "CASE presence WHEN ?3 THEN ?4 ELSE presence END WHERE id = ?1",
                agent, now, AgentPresence::Lost, AgentPresence::Connected);
        }
    });
}

void SqliteAgents::markLost(const AgentId& agent, UtcTime lastSeen) {
    parts.database.writeSoon([&](Connection& connection) {
        connection.run(
            "UPDATE agents SET presence = ?3 WHERE id = ?1 AND last_seen = ?2 AND presence = ?4",
            agent, lastSeen, AgentPresence::Lost, AgentPresence::Connected);
    });
}

void SqliteAgents::leave(const AgentId& agent, const std::string& uuid) {
    const bool left = parts.database.writeSoon([&](Connection& connection) {
        return connection.run("UPDATE agents SET presence = ?3 WHERE id = ?1 AND uuid = ?2", agent,
                              uuid, AgentPresence::Left) != 0;
    });
    if (left) {
        parts.wakeUps.wakeAgent(agent);
    }
}

void SqliteAgents::setCollectorVersion(const AgentId& agent, const std::string& version) {
    parts.database.writeSoon([&](Connection& connection) {
        connection.run("UPDATE agents SET collector_version = ?2 WHERE id = ?1", agent, version);
    });
}

}  // namespace kolvan::server
