#pragma once

#include "companions/server/http/Awaitable.h"
#include "companions/server/http/Request.h"
#include "companions/server/http/Response.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::server::http {

/// Answers one request. What it throws becomes a problem that the client is told.
using Handler = std::function<Awaitable<Response>(Request&)>;

/// A way to a handler.
struct Route {
    std::string method;
    std::vector<std::string> pattern;  ///< segments; "{name}" stands for any
    std::uint64_t bodyLimit = 0;       ///< bytes
    Handler handler;
};

/// Finds who answers a request. Filled before the server starts, unchanged from then on.
class Router {
public:
    /// Body limit of routes that do not name one.
    static constexpr std::uint64_t kSmallBody = std::uint64_t{64} * 1024;

    /// Adds a route. GET answers HEAD too.
    /// @param path such as "/api/v1/agents/{id}"
    void add(std::string method, std::string_view path, Handler handler,
             std::uint64_t bodyLimit = kSmallBody);

    /// What was found for a request.
    struct Match {
        const Route* route = nullptr;           ///< null when there is none
        std::vector<std::string_view> allowed;  ///< methods that the path has
    };

    /// Finds the route and fills in the request's places. Of several, the first one counts.
    Match find(std::string_view method, const std::vector<std::string>& segments,
               std::map<std::string, std::string>& places) const;

    /// All routes, in the order in which they were added.
    const std::vector<Route>& all() const { return routes; }

private:
    std::vector<Route> routes;
};

}  // namespace kolvan::server::http
