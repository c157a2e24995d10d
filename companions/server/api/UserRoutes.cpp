#include "companions/server/api/UserRoutes.h"

#include "companions/server/api/Body.h"
#include "companions/server/api/ListPage.h"
#include "companions/server/api/Query.h"
#include "companions/server/api/RecordJson.h"
#include "companions/server/api/Unfit.h"
#include "companions/server/http/HttpError.h"
#include "companions/server/http/OnPool.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

namespace kolvan::server::api {

namespace {

using http::Awaitable;
using http::HttpError;
using http::Response;

constexpr std::size_t kLongestName = 200;
constexpr std::size_t kLongestPassword = 1024;

/// In the order of their names, which is also that of the pages: a page begins behind a name.
Page<User> userPage(const Surroundings& parts, const PageRequest& page) {
    std::vector<User> users = parts.store.accounts().listUsers();
    const auto begin = std::find_if(users.begin(), users.end(),
                                    [&](const User& user) { return user.name > page.after; });
    const auto index = static_cast<std::size_t>(begin - users.begin());
    return pageFrom(std::move(users), index, page.size, [](const User& user) { return user.name; });
}

void require(UserChange change) {
    if (change == UserChange::NotFound) {
        throw HttpError(404, "There is no user with this id.");
    }
    if (change == UserChange::LastAdministrator) {
        throw HttpError(409, "This is the last administrator: nobody could add users any more.");
    }
}

Awaitable<Response> list(const Surroundings& parts, http::Request& request) {
    const Query query(request, {"cursor", "limit"});
    const PageRequest page = query.page();
    const auto find = [&] { return userPage(parts, page); };
    co_return http::jsonResponse(pageJson(co_await http::onPool(parts.threads, find), writeUser));
}

Awaitable<Response> make(Api& api, http::Request& request, const Caller& caller) {
    const Surroundings& parts = api.parts();
    const Body body = co_await Body::read(request);
    body.allow({"name", "role", "password"});
    const std::string name = body.needText("name", kLongestName);
    const Role role = body.needWord<Role>("role");
    const std::string password = body.needText("password", kLongestPassword);

    const http::Turns::Turn turn = co_await api.passwordTurns().take();
    const auto add = [&] {
        return refusingTheUnfit(
            [&] { return parts.users.add(name, role, password, caller.actor); });
    };
    co_return http::jsonResponse(recordJson(co_await http::onPool(parts.threads, add), writeUser),
                                 201);
}

Awaitable<Response> change(Api& api, http::Request& request, const Caller& caller) {
    const Surroundings& parts = api.parts();
    const UserId id(request.place("user"));
    const Body body = co_await Body::read(request);
    body.allow({"role", "password"});
    body.refuseNull({"role", "password"});
    const std::optional<Role> role = body.word<Role>("role");
    const std::optional<std::string> password = body.text("password", kLongestPassword);
    if (!role && !password) {
        throw HttpError(400, "\"role\" or \"password\" has to be given.");
    }

    std::optional<http::Turns::Turn> turn;
    if (password) {
        turn.emplace(co_await api.passwordTurns().take());
    }
    const auto make = [&] {
        require(refusingTheUnfit([&] {
            return parts.users.change(
                id, role, password ? std::optional<std::string_view>(*password) : std::nullopt,
                caller.actor);
        }));
        const std::optional<User> changed = parts.store.accounts().findUser(id);
        if (!changed) {
            require(UserChange::NotFound);  // removed between the change and the look
        }
        return *changed;
    };
    co_return http::jsonResponse(recordJson(co_await http::onPool(parts.threads, make), writeUser));
}

Awaitable<Response> remove(const Surroundings& parts, http::Request& request,
                           const Caller& caller) {
    const auto forget = [&] {
        require(parts.users.remove(UserId(request.place("user")), caller.actor));
    };
    co_await http::onPool(parts.threads, forget);
    co_return http::noContentResponse();
}

}  // namespace

void addUserRoutes(Api& api, http::Router& router) {
    const Surroundings& parts = api.parts();
    const std::string all = "/api/v1/users";
    const std::string one = all + "/{user}";

    api.add(router, "GET", all, Permission::ManageAccounts,
            [&parts](http::Request& request, const Caller&) { return list(parts, request); });
    api.add(router, "POST", all, Permission::ManageAccounts,
            [&api](http::Request& request, const Caller& caller) {
                return make(api, request, caller);
            });
    api.add(router, "PATCH", one, Permission::ManageAccounts,
            [&api](http::Request& request, const Caller& caller) {
                return change(api, request, caller);
            });
    api.add(router, "DELETE", one, Permission::ManageAccounts,
            [&parts](http::Request& request, const Caller& caller) {
                return remove(parts, request, caller);
            });
}

}  // namespace kolvan::server::api
