#include "companions/server/accounts/Tokens.h"

#include "companions/server/accounts/Naming.h"
#include "companions/server/accounts/Secret.h"
#include "companions/server/store/Names.h"
#include "companions/server/store/StoreError.h"

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

namespace kolvan::server {

namespace {

// A host name that a stranger sends is as long as it likes.
constexpr std::size_t kLongestSubject = 255;

// Writing down each request would cost more than it tells.
constexpr std::chrono::minutes kExactnessOfLastUse{1};

// The store looks a hash up, and how long that takes may depend on it. It tells nothing of the
// token, as nobody can choose a token by its hash; a comparison of whole hashes leaves no doubt.
template <typename Token>
std::optional<Token> confirmed(std::optional<Token> found, const Sha256& hash) {
    if (found && !equalInConstantTime(found->hash, hash)) {
        found.reset();
    }
    return found;
}

void touch(Store& store, const ApiTokenId& token) {
    try {
        store.accounts().touchToken(token);
    } catch (const StoreError&) {
        // Deliberate: on a full disk, programs can still look, and remove what takes the room.
    }
}

template <typename Token>
std::string nameIn(const std::vector<Token>& tokens, const Id<Token>& id) {
    const auto found = std::find_if(tokens.begin(), tokens.end(),
                                    [&](const Token& token) { return token.id == id; });
    return found == tokens.end() ? "" : found->name;
}

}  // namespace

NewToken<ApiToken> Tokens::addApiToken(const std::string& name, Role role, const Actor& actor) {
    checkTokenName(name);
    Secret secret = makeSecret(kApiTokenPrefix);
    ApiToken token = store.accounts().addToken(name, role, actor.name, secret.hash);
    store.audit().append(
        {0, {}, actor.name, actor.address, "token.add", name, "role " + std::string(nameOf(role))});
    return {std::move(token), std::move(secret.text)};
}

NewToken<AgentToken> Tokens::addAgentToken(const std::string& name, bool shared,
                                           const Actor& actor) {
    checkTokenName(name);
    Secret secret = makeSecret(kAgentTokenPrefix);
    AgentToken token = store.agents().addToken(name, shared, secret.hash);
    store.audit().append(
        {0, {}, actor.name, actor.address, "agentToken.add", name, shared ? "shared" : ""});
    return {std::move(token), std::move(secret.text)};
}

std::optional<ApiToken> Tokens::findApiToken(std::string_view text, const std::string& address) {
    const Sha256 hash = sha256(text);
    auto token = confirmed(store.accounts().findToken(hash), hash);
    if (token) {
        if (!token->lastUsed || clock.utc() - *token->lastUsed >= kExactnessOfLastUse) {
            touch(store, token->id);
        }
    } else {
        refusals.add({0, {}, "", address, "token.refused", "", ""});
    }
    return token;
}

bool Tokens::isInUse(const ApiToken& token) const {
    return store.accounts().findToken(token.hash).has_value();
}

std::optional<AgentToken> Tokens::findAgentToken(std::string_view text, const std::string& address,
                                                 const std::string& hostName) {
    const Sha256 hash = sha256(text);
    auto token = confirmed(store.agents().findToken(hash), hash);
    if (!token) {
        refusals.add(
            {0, {}, "", address, "agent.refused", hostName.substr(0, kLongestSubject), ""});
    }
    return token;
}

bool Tokens::revokeApiToken(const ApiTokenId& token, const Actor& actor) {
    const bool revoked = store.accounts().revokeToken(token);
    if (revoked) {
        store.audit().append({0,
                              {},
                              actor.name,
                              actor.address,
                              "token.revoke",
                              nameIn(store.accounts().listTokens(), token),
                              ""});
    }
    return revoked;
}

bool Tokens::revokeAgentToken(const AgentTokenId& token, const Actor& actor) {
    const bool revoked = store.agents().revokeToken(token);
    if (revoked) {
        store.audit().append({0,
                              {},
                              actor.name,
                              actor.address,
                              "agentToken.revoke",
                              nameIn(store.agents().listTokens(), token),
                              ""});
    }
    return revoked;
}

}  // namespace kolvan::server
