#include "companions/server/api/Api.h"

#include "companions/server/http/HttpError.h"
#include "companions/server/http/OnPool.h"
#include "companions/server/store/StoreError.h"

#include <algorithm>
#include <utility>

namespace kolvan::server::api {

namespace {

using http::Awaitable;
using http::HttpError;
using http::Response;

constexpr std::string_view kBearer = "Bearer ";

bool changesSomething(const std::string& method) {
    return method != "GET" && method != "HEAD";
}

unsigned statusOf(StoreError::Reason reason) {
    switch (reason) {
        case StoreError::Reason::NotFound:
            return 404;
        case StoreError::Reason::NameTaken:
            return 409;
        case StoreError::Reason::Full:
            return 507;
        case StoreError::Reason::Busy:
            return 503;
        default:
            return 500;
    }
}

/// 401, with the way in which a program could show who it is, as RFC 9110 asks for.
Response notIdentified() {
    Response response = http::problemResponse(
        401, "This needs a token in the field \"Authorization\", or a session.");
    response.fields.emplace_back("WWW-Authenticate", "Bearer");
    return response;
}

}  // namespace

void Api::add(http::Router& router, const std::string& method, const std::string& path,
              Permission permission, Handler handler, std::uint64_t bodyLimit) {
    router.add(
        method, path,
        [this, permission, handler = std::move(handler)](http::Request& request) {
            return answer(request, permission, handler);
        },
        bodyLimit);
}

Awaitable<Response> Api::answer(http::Request& request, Permission permission,
                                const Handler& handler) {
    const auto look = [this, &request] { return identify(request); };
    const std::optional<Caller> caller = co_await http::onPool(surroundings.threads, look);
    if (!caller) {
        co_return notIdentified();
    }
    if (!may(caller->role, permission)) {
        throw HttpError(403,
                        "Your role does not allow this. An administrator could do it, or "
                        "give you another role.");
    }
    if (caller->session && changesSomething(request.head().method) &&
        !Logins::isFrom(*caller->session, request.field(kCrossSiteField).value_or(""))) {
        throw HttpError(403, std::string("A page has to send its token in ") + kCrossSiteField +
                                 " with whatever changes something.");
    }
    try {
        co_return co_await handler(request, *caller);
    } catch (const StoreError& error) {
        const unsigned status = statusOf(error.reason());
        if (status == 500) {
            throw;  // for the operator's eyes
        }
        throw HttpError(status, error.what());
    }
}

std::optional<Caller> Api::identify(const http::Request& request) const {
    const std::string& address = request.head().peer;
    if (const auto field = request.field("Authorization")) {
        if (!http::equalIgnoringCase(field->substr(0, kBearer.size()), kBearer)) {
            return std::nullopt;
        }
        const auto token = surroundings.tokens.findApiToken(field->substr(kBearer.size()), address);
        return token ? std::optional(Caller{{token->name, address}, token->role, {}})
                     : std::nullopt;
    }
    const std::string cookie = cookieOf(request, kSessionCookie);
    std::optional<SignedIn> session =
        cookie.empty() ? std::nullopt : surroundings.logins.find(cookie);
    if (!session) {
        return std::nullopt;
    }
    Caller caller{{session->user.name, address}, session->user.role, {}};
    caller.session = std::move(session);
    return caller;
}

std::string cookieOf(const http::Request& request, std::string_view name) {
    std::string_view rest = request.field("Cookie").value_or("");
    while (!rest.empty()) {
        const std::size_t end = rest.find(';');
        std::string_view pair = rest.substr(0, end);
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
        pair.remove_prefix(std::min(pair.find_first_not_of(' '), pair.size()));
        const std::size_t equals = pair.find('=');
        if (equals != std::string_view::npos && pair.substr(0, equals) == name) {
            return std::string(pair.substr(equals + 1));
        }
    }
    return {};
}

}  // namespace kolvan::server::api
