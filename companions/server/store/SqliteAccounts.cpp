#include "companions/server/store/SqliteAccounts.h"

#include "companions/server/store/StoreError.h"

namespace kolvan::server {

namespace {

const std::string kSelectUser = "SELECT id, name, role, password_hash, made, changed FROM users ";

User readUser(const Statement& row) {
    User user;
    row.read(user.id, user.name, user.role, user.passwordHash, user.made, user.changed);
    return user;
}

const std::string kSelectToken =
    "SELECT id, name, role, made_by, hash, made, last_used, revoked FROM api_tokens ";

ApiToken readToken(const Statement& row) {
    ApiToken token;
    row.read(token.id, token.name, token.role, token.madeBy, token.hash, token.made, token.lastUsed,
             token.revoked);
    return token;
}

User insertUser(Connection& connection, const std::string& name, Role role,
                const std::string& passwordHash, UtcTime now) {
    if (connection.value<bool>("SELECT 1 FROM users WHERE name = ?1", name)) {
        throw StoreError(StoreError::Reason::NameTaken, "There is a user with the name " + name);
    }
    User user{UserId::make(), name, role, passwordHash, now, now};
    connection.run(
        "INSERT INTO users (id, name, role, password_hash, made, changed) "
        "VALUES (?1, ?2, ?3, ?4, ?5, ?5)",
        user.id, user.name, user.role, user.passwordHash, now);
    return user;
}

bool isLastAdministrator(Connection& connection, const User& user) {
    return user.role == Role::Administrator &&
           connection.value<int>("SELECT count(*) FROM users WHERE role = ?1",
                                 Role::Administrator) == 1;
}

}  // namespace

User SqliteAccounts::addUser(const std::string& name, Role role, const std::string& passwordHash) {
    return parts.database.write([&](Connection& connection) {
        return insertUser(connection, name, role, passwordHash, parts.clock.utc());
    });
}

std::optional<User> SqliteAccounts::findUser(const UserId& user) const {
    return parts.database.read([&](Connection& connection) {
        return readOne(connection.query(kSelectUser + "WHERE id = ?1", user), readUser);
    });
}

std::optional<User> SqliteAccounts::findUser(const std::string& name) const {
    return parts.database.read([&](Connection& connection) {
        return readOne(connection.query(kSelectUser + "WHERE name = ?1", name), readUser);
    });
}

std::vector<User> SqliteAccounts::listUsers() const {
    return parts.database.read([](Connection& connection) {
        return readAll(connection.query(kSelectUser + "ORDER BY name"), readUser);
    });
}

UserChange SqliteAccounts::changeUser(const UserId& user, std::optional<Role> role,
                                      const std::optional<std::string>& passwordHash) {
    const UserChange change = parts.database.write([&](Connection& connection) {
        const auto found = readOne(connection.query(kSelectUser + "WHERE id = ?1", user), readUser);
        if (!found) {
            return UserChange::NotFound;
        }
        if (role && *role != Role::Administrator && isLastAdministrator(connection, *found)) {
            return UserChange::LastAdministrator;
        }
        connection.run(
            "UPDATE users SET role = coalesce(?2, role), "
            "password_hash = coalesce(?3, password_hash), changed = ?4 WHERE id = ?1",
            user, role, passwordHash, parts.clock.utc());
        if (role || passwordHash) {
            connection.run("DELETE FROM sessions WHERE user = ?1", user);
        }
        return UserChange::Made;
    });
    parts.wakeUps.wakeForEndOfAccess();
    return change;
}

void SqliteAccounts::rehashPassword(const UserId& user, const std::string& former,
                                    const std::string& passwordHash) {
    parts.database.write([&](Connection& connection) {
        connection.run("UPDATE users SET password_hash = ?3 WHERE id = ?1 AND password_hash = ?2",
                       user, former, passwordHash);
    });
}

bool SqliteAccounts::replacePassword(const UserId& user, const std::string& former,
                                     const std::string& passwordHash) {
    const bool replaced = parts.database.write([&](Connection& connection) {
        const bool found = connection.run(
                               "UPDATE users SET password_hash = ?3, changed = ?4 "
                               "WHERE id = ?1 AND password_hash = ?2",
                               user, former, passwordHash, parts.clock.utc()) != 0;
        if (found) {
            connection.run("DELETE FROM sessions WHERE user = ?1", user);
        }
        return found;
    });
    parts.wakeUps.wakeForEndOfAccess();
    return replaced;
}

UserChange SqliteAccounts::removeUser(const UserId& user) {
    const UserChange change = parts.database.write([&](Connection& connection) {
        const auto found = readOne(connection.query(kSelectUser + "WHERE id = ?1", user), readUser);
        if (!found) {
            return UserChange::NotFound;
        }
        if (isLastAdministrator(connection, *found)) {
            return UserChange::LastAdministrator;
        }
        connection.run("DELETE FROM users WHERE id = ?1", user);
        return UserChange::Made;
    });
    parts.wakeUps.wakeForEndOfAccess();
    return change;
}

void SqliteAccounts::setFirstLoginCode(const Sha256& hash, UtcTime validUntil) {
    parts.database.write([&](Connection& connection) {
        connection.run(
            "INSERT INTO first_login (only, hash, valid_until) VALUES (1, ?1, ?2) "
            "ON CONFLICT DO UPDATE SET hash = excluded.hash, "
            "valid_until = excluded.valid_until",
            hash, validUntil);
    });
}

std::optional<User> SqliteAccounts::addFirstUser(const Sha256& codeHash, UtcTime now,
                                                 const std::string& name,
                                                 const std::string& passwordHash) {
    return parts.database.write([&](Connection& connection) -> std::optional<User> {
        const bool wanted = connection.run(
                                "DELETE FROM first_login WHERE hash = ?1 AND valid_until > ?2 "
                                "AND NOT EXISTS (SELECT 1 FROM users)",
                                codeHash, now) != 0;
        if (!wanted) {
            return std::nullopt;
        }
        return insertUser(connection, name, Role::Administrator, passwordHash, now);
    });
}

bool SqliteAccounts::addSession(const Session& session, const std::string& passwordHash) {
    return parts.database.write([&](Connection& connection) {
        return connection.run(
                   "INSERT INTO sessions (hash, user, cross_site_token, address, made, last_used) "
                   "SELECT ?1, id, ?3, ?4, ?5, ?6 FROM users WHERE id = ?2 AND password_hash = ?7",
                   session.hash, session.user, session.crossSiteToken, session.address,
                   session.made, session.lastUsed, passwordHash) != 0;
    });
}

std::optional<Session> SqliteAccounts::findSession(const Sha256& hash) const {
    return parts.database.read([&](Connection& connection) {
        return readOne(
            connection.query("SELECT hash, user, cross_site_token, address, made, last_used "
                             "FROM sessions WHERE hash = ?1",
                             hash),
            [](const Statement& row) {
                Session session;
                row.read(session.hash, session.user, session.crossSiteToken, session.address,
                         session.made, session.lastUsed);
                return session;
            });
    });
}

void SqliteAccounts::touchSession(const Sha256& hash) {
    parts.database.writeSoon([&](Connection& connection) {
        connection.run("UPDATE sessions SET last_used = ?2 WHERE hash = ?1", hash,
                       parts.clock.utc());
    });
}

bool SqliteAccounts::removeSession(const Sha256& hash) {
    const bool removed = parts.database.write([&](Connection& connection) {
        return connection.run("DELETE FROM sessions WHERE hash = ?1", hash) != 0;
    });
    parts.wakeUps.wakeForEndOfAccess();
    return removed;
}

void SqliteAccounts::removeOldSessions(UtcTime madeBefore, UtcTime usedBefore) {
    parts.database.write([&](Connection& connection) {
        connection.run("DELETE FROM sessions WHERE made < ?1 OR last_used < ?2", madeBefore,
                       usedBefore);
    });
    parts.wakeUps.wakeForEndOfAccess();
}

ApiToken SqliteAccounts::addToken(const std::string& name, Role role, const std::string& madeBy,
                                  const Sha256& hash) {
    ApiToken token{ApiTokenId::make(), name, role, madeBy, hash, parts.clock.utc(), {}, {}};
    parts.database.write([&](Connection& connection) {
        if (connection.value<bool>("SELECT 1 FROM api_tokens WHERE name = ?1 AND revoked IS NULL",
                                   name)) {
            throw StoreError(StoreError::Reason::NameTaken,
                             "There is an API token with the name " + name);
        }
        connection.run(
            "INSERT INTO api_tokens (id, name, role, made_by, hash, made) "
            "VALUES (?1, ?2, ?3, ?4, ?5, ?6)",
            token.id, token.name, token.role, token.madeBy, token.hash, token.made);
    });
    return token;
}

std::optional<ApiToken> SqliteAccounts::findToken(const Sha256& hash) const {
    return parts.database.read([&](Connection& connection) {
        return readOne(connection.query(kSelectToken + "WHERE hash = ?1 AND revoked IS NULL", hash),
                       readToken);
    });
}

void SqliteAccounts::touchToken(const ApiTokenId& token) {
    parts.database.writeSoon([&](Connection& connection) {
        connection.run("UPDATE api_tokens SET last_used = ?2 WHERE id = ?1", token,
                       parts.clock.utc());
    });
}

std::vector<ApiToken> SqliteAccounts::listTokens() const {
    return parts.database.read([](Connection& connection) {
        return readAll(connection.query(kSelectToken + "ORDER BY sequence"), readToken);
    });
}

bool SqliteAccounts::revokeToken(const ApiTokenId& token) {
    const bool revoked = parts.database.write([&](Connection& connection) {
        return connection.run(
                   "UPDATE api_tokens SET revoked = ?2 "
                   "WHERE id = ?1 AND revoked IS NULL",
                   token, parts.clock.utc()) != 0;
    });
    parts.wakeUps.wakeForEndOfAccess();
    return revoked;
}

}  // namespace kolvan::server
