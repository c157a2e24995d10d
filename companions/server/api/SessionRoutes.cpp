#include "companions/server/api/SessionRoutes.h"

#include "companions/server/api/Body.h"
#include "companions/server/api/JsonWriter.h"
#include "companions/server/api/SessionCookie.h"
#include "companions/server/api/Unfit.h"
#include "companions/server/http/HttpError.h"
#include "companions/server/http/OnPool.h"
#include "companions/server/store/Names.h"

#include <chrono>
#include <utility>
#include <variant>

namespace kolvan::server::api {

namespace {

using http::Awaitable;
using http::Response;

constexpr std::size_t kLongestName = 200;
constexpr std::size_t kLongestPassword = 1024;
constexpr std::size_t kLongestCode = 200;

using LoginResult = std::variant<NewSession, LoginRefused>;

std::string sessionJson(const std::string& name, Role role,
                        const std::optional<std::string>& crossSiteToken) {
    JsonWriter json;
    json.object([&] {
        json.member("name", name);
        json.member("role", nameOf(role));
        json.member("crossSiteToken", crossSiteToken);
    });
    return json.text();
}

Response refusal(const LoginRefused& refused, const std::string& detail) {
    if (!refused.tryAgainAfter) {
        return notIdentified(detail);
    }
    const std::string seconds = std::to_string(refused.tryAgainAfter->count());
    Response response = http::problemResponse(
        429, "Too many attempts have failed. Wait for " + seconds + " s, then try again.");
    response.fields.emplace_back("Retry-After", seconds);
    return response;
}

Response begun(const http::Request& request, const Surroundings& parts, const NewSession& session) {
    const SignedIn& signedIn = session.signedIn;
    Response response = http::jsonResponse(
        sessionJson(signedIn.user.name, signedIn.user.role, signedIn.crossSiteToken));
    response.fields.emplace_back("Set-Cookie",
                                 sessionCookie(request, parts.publicUrl, session.cookie));
    return response;
}

Awaitable<Response> logIn(Api& api, http::Request& request) {
    const Surroundings& parts = api.parts();
    const Body body = co_await Body::read(request);
    body.allow({"name", "password"});
    const std::string name = body.needText("name", kLongestName);
    const std::string password = body.needText("password", kLongestPassword);
    const std::string shown = shownSession(request, parts.publicUrl);

    const http::Turns::Turn turn = co_await api.passwordTurns().take();
    const auto tryIt = [&] {
        return parts.logins.logIn(name, password, shown, request.head().peer);
    };
    const LoginResult result = co_await http::onPool(parts.threads, tryIt);
    if (const auto* refused = std::get_if<LoginRefused>(&result)) {
        co_return refusal(*refused, "Name or password is wrong.");
    }
    co_return begun(request, parts, std::get<NewSession>(result));
}

Awaitable<Response> logInFirst(Api& api, http::Request& request) {
    const Surroundings& parts = api.parts();
    const Body body = co_await Body::read(request);
    body.allow({"code", "name", "password"});
    const std::string code = body.needText("code", kLongestCode);
    const std::string name = body.needText("name", kLongestName);
    const std::string password = body.needText("password", kLongestPassword);

    const http::Turns::Turn turn = co_await api.passwordTurns().take();
    const auto redeem = [&] {
        return refusingTheUnfit([&] {
            return parts.logins.redeemFirstLoginCode(code, name, password, request.head().peer);
        });
    };
    const LoginResult result = co_await http::onPool(parts.threads, redeem);
    if (const auto* refused = std::get_if<LoginRefused>(&result)) {
        co_return refusal(*refused,
                          "The code is wrong, was used, or is too old. The server prints a new one "
                          "when it starts, as long as nobody has an account.");
    }
    co_return begun(request, parts, std::get<NewSession>(result));
}

/// The answer is that of a login: the session goes on as another one.
Awaitable<Response> changePassword(Api& api, http::Request& request, const Caller& caller) {
    const Surroundings& parts = api.parts();
    if (!caller.session) {
        throw http::HttpError(400, "A token has no password. Another token takes its place.");
    }
    const Body body = co_await Body::read(request);
    body.allow({"presentPassword", "password"});
    const std::string present = body.needText("presentPassword", kLongestPassword);
    const std::string next = body.needText("password", kLongestPassword);

    const http::Turns::Turn turn = co_await api.passwordTurns().take();
    const auto change = [&] {
        return refusingTheUnfit([&] {
            return parts.logins.changePassword(caller.session->user, present, next,
                                               request.head().peer);
        });
    };
    const LoginResult result = co_await http::onPool(parts.threads, change);
    if (const auto* refused = std::get_if<LoginRefused>(&result)) {
        if (refused->tryAgainAfter) {
            co_return refusal(*refused, "");
        }
        // Not 401: who it is was never in doubt, and pages would ask for a login.
        throw http::HttpError(403, "The present password is wrong.");
    }
    co_return begun(request, parts, std::get<NewSession>(result));
}

Awaitable<Response> logOut(const Surroundings& parts, http::Request& request,
                           const Caller& caller) {
    if (!caller.session) {
        throw http::HttpError(400, "A token has no session that could end. It is revoked instead.");
    }
    const auto end = [&] {
        parts.logins.logOut(shownSession(request, parts.publicUrl), caller.actor);
    };
    co_await http::onPool(parts.threads, end);
    Response response = http::noContentResponse();
    response.fields.emplace_back("Set-Cookie", endedSessionCookie(request, parts.publicUrl));
    co_return response;
}

Awaitable<Response> showSession(const Caller& caller) {
    co_return http::jsonResponse(
        sessionJson(caller.actor.name, caller.role,
                    caller.session ? std::optional(caller.session->crossSiteToken) : std::nullopt));
}

}  // namespace

void addSessionRoutes(Api& api, http::Router& router) {
    const Surroundings& parts = api.parts();

    api.add(router, "GET", "/api/v1/session", Permission::Look,
            [](http::Request&, const Caller& caller) { return showSession(caller); });
    api.addOpen(router, "POST", "/api/v1/session",
                [&api](http::Request& request) { return logIn(api, request); });
    api.add(router, "DELETE", "/api/v1/session", Permission::Look,
            [&parts](http::Request& request, const Caller& caller) {
                return logOut(parts, request, caller);
            });
    api.add(router, "POST", "/api/v1/session/password", Permission::Look,
            [&api](http::Request& request, const Caller& caller) {
                return changePassword(api, request, caller);
            });
    api.addOpen(router, "POST", "/api/v1/session/first",
                [&api](http::Request& request) { return logInFirst(api, request); });
}

}  // namespace kolvan::server::api
