#pragma once

#include "companions/server/accounts/Actor.h"
#include "companions/server/accounts/Logins.h"
#include "companions/server/accounts/Permissions.h"
#include "companions/server/accounts/Tokens.h"
#include "companions/server/base/Clock.h"
#include "companions/server/collections/Collections.h"
#include "companions/server/collections/OutputFiles.h"
#include "companions/server/collections/UploadedFiles.h"
#include "companions/server/http/Router.h"
#include "companions/server/store/Store.h"

#include <boost/asio/thread_pool.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace kolvan::server::api {

/// What the API works with. All of it outlives the API.
struct Surroundings {
    Store& store;
    const Clock& clock;
    Tokens& tokens;
    Logins& logins;
    Collections& collections;
    const OutputFiles& outputs;
    const UploadedFiles& uploads;
    boost::asio::thread_pool& threads;
};

/// Who has made a request, and what that one may do.
struct Caller {
    Actor actor;
    Role role = Role::Viewer;
    std::optional<SignedIn> session;  ///< nothing for a program with a token
};

/// The door to the API: lets those in who may come, and turns what goes wrong into problems that
/// say so.
///
/// Threads: that of the network. What blocks is done on the pool.
class Api {
public:
    /// Answers a request of somebody who may make it.
    using Handler = std::function<http::Awaitable<http::Response>(http::Request&, const Caller&)>;

    explicit Api(Surroundings apiSurroundings) : surroundings(apiSurroundings) {}

    /// Adds a route to those who have the permission. This object outlives the router's use.
    void add(http::Router& router, const std::string& method, const std::string& path,
             Permission permission, Handler handler,
             std::uint64_t bodyLimit = http::Router::kSmallBody);

    const Surroundings& parts() const { return surroundings; }

private:
    http::Awaitable<http::Response> answer(http::Request& request, Permission permission,
                                           const Handler& handler);
    std::optional<Caller> identify(const http::Request& request) const;

    const Surroundings surroundings;
};

/// The name of the cookie that holds a session.
inline constexpr const char* kSessionCookie = "kolvan-session";

/// The header field in which pages send their token against requests of other sites.
inline constexpr const char* kCrossSiteField = "X-Cross-Site-Token";

/// Value of a cookie that came with a request; empty when it did not.
std::string cookieOf(const http::Request& request, std::string_view name);

}  // namespace kolvan::server::api
