#include "companions/server/api/Api.h"

#include "companions/server/api/EndOfAccess.h"
#include "companions/server/api/SessionCookie.h"
#include "companions/server/base/Utf8.h"
#include "companions/server/http/HttpError.h"
#include "companions/server/http/OnPool.h"
#include "companions/server/store/StoreError.h"

#include <cerrno>
#include <cstddef>
#include <string_view>
#include <system_error>
#include <utility>

namespace kolvan::server::api {

namespace {

using http::Awaitable;
using http::HttpError;
using http::Response;

constexpr std::string_view kBearer = "Bearer ";

// The audit keeps many lines; that of a command has all of its arguments.
constexpr std::size_t kLongestDetail = 1000;

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

/// An answer in which failures of the store and a full disk are problems that the client is told.
Awaitable<Response> toldAsProblem(Awaitable<Response> answer) {
    try {
        co_return co_await std::move(answer);
    } catch (const StoreError& error) {
        const unsigned status = statusOf(error.reason());
        if (status == 500) {
            throw;  // for the operator's eyes
        }
        throw HttpError(status, error.what());
    } catch (const std::system_error& error) {
        if (error.code() != std::errc::no_space_on_device &&
            error.code() != std::error_code(EDQUOT, std::generic_category())) {
            throw;
        }
        throw HttpError(507, "The server's disk is full.");
    }
}

}  // namespace

Response notIdentified(const std::string& detail) {
    Response response = http::problemResponse(401, detail);
    response.fields.emplace_back("WWW-Authenticate", "Bearer");
    return response;
}

void record(const Surroundings& parts, const Caller& caller, const std::string& action,
            const std::string& subject, const std::string& detail) {
    AuditLine line;
    line.actor = caller.actor.name;
    line.address = caller.actor.address;
    line.action = action;
    line.subject = subject;
    line.detail =
        detail.substr(0, wholeUtf8Length(std::string_view(detail).substr(0, kLongestDetail)));
    parts.store.audit().append(line);
}

void Api::add(http::Router& router, const std::string& method, const std::string& path,
              Permission permission, Handler handler, std::uint64_t bodyLimit) {
    router.add(
        method, path,
        [this, permission, handler = std::move(handler)](http::Request& request) {
            return toldAsProblem(answer(request, permission, handler));
        },
        bodyLimit);
}

void Api::addOpen(http::Router& router, const std::string& method, const std::string& path,
                  OpenHandler handler) {
    router.add(method, path, [handler = std::move(handler)](http::Request& request) {
        return toldAsProblem(handler(request));
    });
}

Awaitable<Response> Api::answer(http::Request& request, Permission permission,
                                const Handler& handler) {
    const auto look = [this, &request] { return identify(request); };
    const std::optional<Caller> caller = co_await http::onPool(surroundings.threads, look);
    if (!caller) {
        co_return notIdentified("This needs a token in the field \"Authorization\", or a session.");
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
    Response response = co_await handler(request, *caller);
    endWithAccess(surroundings.store.wakeUps(), surroundings.threads, caller->lasts, response);
    co_return response;
}

std::optional<Caller> Api::identify(const http::Request& request) const {
    const std::string& address = request.head().peer;
    if (const auto field = request.field("Authorization")) {
        if (!http::equalIgnoringCase(field->substr(0, kBearer.size()), kBearer)) {
            return std::nullopt;
        }
        Tokens& tokens = surroundings.tokens;
        const auto token = tokens.findApiToken(field->substr(kBearer.size()), address);
        if (!token) {
            return std::nullopt;
        }
        const auto lasts = [&tokens, shown = *token] { return tokens.isInUse(shown); };
        return Caller{{token->name, address}, token->role, {}, lasts};
    }
    const std::string cookie = shownSession(request, surroundings.publicUrl);
    Logins& logins = surroundings.logins;
    std::optional<SignedIn> session = cookie.empty() ? std::nullopt : logins.find(cookie);
    if (!session) {
        return std::nullopt;
    }
    const auto lasts = [&logins, cookie] { return logins.isOpen(cookie); };
    Caller caller{{session->user.name, address}, session->user.role, {}, lasts};
    caller.session = std::move(session);
    return caller;
}

}  // namespace kolvan::server::api
