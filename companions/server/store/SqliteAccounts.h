#pragma once

#include "companions/server/store/SqliteParts.h"
#include "companions/server/store/Store.h"

namespace kolvan::server {

/// Users, sessions and API tokens in SQLite.
class SqliteAccounts final : public AccountStore {
public:
    explicit SqliteAccounts(SqliteParts& ownParts) : parts(ownParts) {}

    User addUser(const std::string& name, Role role, const std::string& passwordHash) override;
    std::optional<User> findUser(const UserId& user) const override;
    std::optional<User> findUser(const std::string& name) const override;
    std::vector<User> listUsers() const override;
    UserChange changeUser(const UserId& user, std::optional<Role> role,
                          const std::optional<std::string>& passwordHash) override;
    void rehashPassword(const UserId& user, const std::string& former,
                        const std::string& passwordHash) override;
    bool replacePassword(const UserId& user, const std::string& former,
                         const std::string& passwordHash) override;
    UserChange removeUser(const UserId& user) override;

    void setFirstLoginCode(const Sha256& hash, UtcTime validUntil) override;
    std::optional<User> addFirstUser(const Sha256& codeHash, UtcTime now, const std::string& name,
                                     const std::string& passwordHash) override;

    bool addSession(const Session& session, const std::string& passwordHash) override;
    std::optional<Session> findSession(const Sha256& hash) const override;
    void touchSession(const Sha256& hash) override;
    bool removeSession(const Sha256& hash) override;
    void removeOldSessions(UtcTime madeBefore, UtcTime usedBefore) override;

    ApiToken addToken(const std::string& name, Role role, const std::string& madeBy,
                      const Sha256& hash) override;
    std::optional<ApiToken> findToken(const Sha256& hash) const override;
    void touchToken(const ApiTokenId& token) override;
    std::vector<ApiToken> listTokens() const override;
    bool revokeToken(const ApiTokenId& token) override;

private:
    SqliteParts& parts;
};

}  // namespace kolvan::server
