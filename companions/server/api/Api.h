#pragma once

#include "companions/server/accounts/Actor.h"
#include "companions/server/accounts/Logins.h"
#include "companions/server/accounts/Permissions.h"
#include "companions/server/accounts/Tokens.h"
#include "companions/server/accounts/Users.h"
#include "companions/server/base/Clock.h"
#include "companions/server/collections/Collections.h"
#include "companions/server/collections/OutputFiles.h"
#include "companions/server/collections/UploadedFiles.h"
#include "companions/server/http/Router.h"
#include "companions/server/http/Traffic.h"
#include "companions/server/http/Turns.h"
#include "companions/server/store/Store.h"
#include "companions/server/symbols/SymbolFiles.h"

#include <boost/asio/thread_pool.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace kolvan::server::api {

class ProfileViews;

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
    Users& users;
    symbols::SymbolFiles& symbols;
    ProfileViews& views;

    /// How browsers reach the server; empty: as it listens. No slash at the end.
    std::string publicUrl = {};

    /// What `/metrics` shows of others: what the HTTP server counts, and how many polls are held.
    std::shared_ptr<const http::Traffic> traffic = std::make_shared<http::Traffic>();
    std::function<std::size_t()> heldPolls = [] { return std::size_t(0); };
};

/// Who has made a request, and what that one may do.
struct Caller {
    Actor actor;
    Role role = Role::Viewer;
    std::optional<SignedIn> session;  ///< nothing for a program with a token

    /// Whether the session or the token lasts that was shown. Blocks on the store; any thread.
    std::function<bool()> lasts;
};

/// Writes into the audit what a caller has done. Blocks on the store.
void record(const Surroundings& parts, const Caller& caller, const std::string& action,
            const std::string& subject, const std::string& detail);

/// The door to the API: lets those in who may come, and turns what goes wrong into problems that
/// say so.
///
/// Threads: that of the network. What blocks is done on the pool.
class Api {
public:
    /// Answers a request of somebody who may make it.
    using Handler = std::function<http::Awaitable<http::Response>(http::Request&, const Caller&)>;

    /// Answers a request of anybody.
    using OpenHandler = http::Handler;

    explicit Api(Surroundings apiSurroundings) : surroundings(std::move(apiSurroundings)) {}

    /// Adds a route to those who have the permission. This object outlives the router's use.
    void add(http::Router& router, const std::string& method, const std::string& path,
             Permission permission, Handler handler,
             std::uint64_t bodyLimit = http::Router::kSmallBody);

    /// Adds a route to everybody, with an account or without.
    void addOpen(http::Router& router, const std::string& method, const std::string& path,
                 OpenHandler handler);

    const Surroundings& parts() const { return surroundings; }

    /// Whoever has a password hashed waits for its turn here: one hash takes 256 MiB and a thread
    /// for most of a second.
    http::Turns& passwordTurns() { return passwords; }

private:
    static constexpr std::size_t kMostWaitingWithPasswords = 16;

    http::Awaitable<http::Response> answer(http::Request& request, Permission permission,
                                           const Handler& handler);
    std::optional<Caller> identify(const http::Request& request) const;

    const Surroundings surroundings;
    http::Turns passwords{kMostWaitingWithPasswords};
};

/// The header field in which pages send their token against requests of other sites.
inline constexpr const char* kCrossSiteField = "X-Cross-Site-Token";

/// Status 401, with the way in which a program could show who it is, as RFC 9110 asks for.
http::Response notIdentified(const std::string& detail);

}  // namespace kolvan::server::api
