#include "companions/server/api/TokenRoutes.h"

#include "companions/server/api/Body.h"
#include "companions/server/api/ListPage.h"
#include "companions/server/api/Query.h"
#include "companions/server/api/RecordJson.h"
#include "companions/server/api/Unfit.h"
#include "companions/server/http/HttpError.h"
#include "companions/server/http/OnPool.h"

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

namespace kolvan::server::api {

namespace {

using http::Awaitable;
using http::HttpError;
using http::Response;

constexpr std::size_t kLongestName = 200;

ShownToken shown(const ApiToken& token) {
    return {token.id.text, token.name,     token.role,    false,
            token.made,    token.lastUsed, token.revoked, {}};
}

ShownToken shown(const AgentToken& token) {
    return {token.id.text, token.name, {}, token.shared, token.made, {}, token.revoked, {}};
}

template <typename Token>
void appendNewestFirst(std::vector<ShownToken>& all, const std::vector<Token>& tokens) {
    std::transform(tokens.rbegin(), tokens.rend(), std::back_inserter(all),
                   [](const Token& token) { return shown(token); });
}

/// The programs' tokens, then the agents', each newest first. No token ever goes from the list, so
/// that a page finds the last one of the page before by its id.
Page<ShownToken> tokenPage(const Surroundings& parts, const PageRequest& request) {
    std::vector<ShownToken> all;
    appendNewestFirst(all, parts.store.accounts().listTokens());
    appendNewestFirst(all, parts.store.agents().listTokens());
    std::size_t begin = 0;
    if (!request.after.empty()) {
        const auto last = std::find_if(all.begin(), all.end(), [&](const ShownToken& token) {
            return token.id == request.after;
        });
        // What is no id of a token never was a cursor: nothing comes after it.
        begin = std::min(static_cast<std::size_t>(last - all.begin()) + 1, all.size());
    }
    return pageFrom(std::move(all), begin, request.size,
                    [](const ShownToken& token) { return token.id; });
}

Awaitable<Response> list(const Surroundings& parts, http::Request& request) {
    const Query query(request, {"cursor", "limit"});
    const PageRequest page = query.page();
    const auto find = [&] { return tokenPage(parts, page); };
    co_return http::jsonResponse(pageJson(co_await http::onPool(parts.threads, find), writeToken));
}

template <typename Token>
ShownToken shownOnce(const NewToken<Token>& made) {
    ShownToken token = shown(made.token);
    token.text = made.text;
    return token;
}

Awaitable<Response> make(const Surroundings& parts, http::Request& request, const Caller& caller) {
    const Body body = co_await Body::read(request);
    const std::string kind = body.needText("kind", kLongestName);
    const bool isForAgents = kind == "agent";
    if (!isForAgents && kind != "api") {
        Body::refuse("kind", R"(has to be "api" or "agent")");
    }
    body.allow(isForAgents ? std::vector<std::string_view>{"kind", "name", "shared"}
                           : std::vector<std::string_view>{"kind", "name", "role"});
    const std::string name = body.needText("name", kLongestName);
    const Role role = isForAgents ? Role::Viewer : body.needWord<Role>("role");
    const bool shared = body.truth("shared").value_or(false);

    const auto add = [&] {
        return refusingTheUnfit([&] {
            return isForAgents ? shownOnce(parts.tokens.addAgentToken(name, shared, caller.actor))
                               : shownOnce(parts.tokens.addApiToken(name, role, caller.actor));
        });
    };
    co_return http::jsonResponse(recordJson(co_await http::onPool(parts.threads, add), writeToken),
                                 201);
}

Awaitable<Response> revoke(const Surroundings& parts, http::Request& request,
                           const Caller& caller) {
    const std::string& id = request.place("token");
    const auto end = [&] {
        if (!parts.tokens.revokeApiToken(ApiTokenId(id), caller.actor) &&
            !parts.tokens.revokeAgentToken(AgentTokenId(id), caller.actor)) {
            throw HttpError(404, "There is no token with this id that could still be used.");
        }
    };
    co_await http::onPool(parts.threads, end);
    co_return http::noContentResponse();
}

}  // namespace

void addTokenRoutes(Api& api, http::Router& router) {
    const Surroundings& parts = api.parts();

    api.add(router, "GET", "/api/v1/tokens", Permission::ManageAccounts,
            [&parts](http::Request& request, const Caller&) { return list(parts, request); });
    api.add(router, "POST", "/api/v1/tokens", Permission::ManageAccounts,
            [&parts](http::Request& request, const Caller& caller) {
                return make(parts, request, caller);
            });
    api.add(router, "DELETE", "/api/v1/tokens/{token}", Permission::ManageAccounts,
            [&parts](http::Request& request, const Caller& caller) {
                return revoke(parts, request, caller);
            });
}

}  // namespace kolvan::server::api
