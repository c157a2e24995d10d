#pragma once

#include "companions/server/accounts/Actor.h"
#include "companions/server/accounts/RefusalLog.h"
#include "companions/server/base/Clock.h"
#include "companions/server/store/Store.h"

#include <optional>
#include <string>
#include <string_view>

namespace kolvan::server {

/// A token that was just made, with its text, which is shown once and kept nowhere.
template <typename Token>
struct NewToken {
    Token token;
    std::string text;
};

/// Tokens of programs and of agents.
///
/// Threads: any member from any thread. All block on the store.
/// @throws StoreError
class Tokens {
public:
    /// @param ownStore, ownClock, ownRefusals must live as long as this
    Tokens(Store& ownStore, const Clock& ownClock, RefusalLog& ownRefusals)
        : store(ownStore), clock(ownClock), refusals(ownRefusals) {}

    /// @throws std::invalid_argument when the name will not do
    NewToken<ApiToken> addApiToken(const std::string& name, Role role, const Actor& actor);

    /// @param shared whether many machines will have it
    /// @throws std::invalid_argument when the name will not do
    NewToken<AgentToken> addAgentToken(const std::string& name, bool shared, const Actor& actor);

    /// The token of a program; nothing when there is none, or it was revoked. Counts as a use of
    /// it.
    /// @param address for the line in the audit about one that is unknown
    std::optional<ApiToken> findApiToken(std::string_view text, const std::string& address);

    /// Whether a program's token has not been revoked since it was found.
    bool isInUse(const ApiToken& token) const;

    /// The token of an agent; nothing when there is none, or it was revoked.
    /// @param address, hostName for the line in the audit about one that is unknown
    std::optional<AgentToken> findAgentToken(std::string_view text, const std::string& address,
                                             const std::string& hostName);

    /// @return whether it could still be used
    bool revokeApiToken(const ApiTokenId& token, const Actor& actor);
    bool revokeAgentToken(const AgentTokenId& token, const Actor& actor);

private:
    Store& store;
    const Clock& clock;
    RefusalLog& refusals;
};

}  // namespace kolvan::server
