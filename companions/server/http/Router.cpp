#include "companions/server/http/Router.h"

#include <algorithm>
#include <stdexcept>

namespace kolvan::server::http {
namespace {

bool isPlace(std::string_view segment) {
    return segment.starts_with('{') && segment.ends_with('}');
}

bool fits(const std::vector<std::string>& pattern, const std::vector<std::string>& segments) {
    return std::equal(pattern.begin(), pattern.end(), segments.begin(), segments.end(),
                      [](const std::string& wanted, const std::string& segment) {
                          return wanted == segment || (isPlace(wanted) && !segment.empty());
                      });
}

bool answers(const Route& route, std::string_view method) {
    return route.method == method || (route.method == "GET" && method == "HEAD");
}

}  // namespace

void Router::add(std::string method, std::string_view path, Handler handler,
                 std::uint64_t bodyLimit) {
    std::optional<Target> target = parseTarget(path);
    if (!target) {
        throw std::invalid_argument("No path: " + std::string(path));
    }
    routes.push_back(
        {std::move(method), std::move(target->segments), bodyLimit, std::move(handler)});
}

Router::Match Router::find(std::string_view method, const std::vector<std::string>& segments,
                           std::map<std::string, std::string>& places) const {
    Match match;
    for (const Route& route : routes) {
        if (!fits(route.pattern, segments)) {
            continue;
        }
        if (!answers(route, method)) {
            match.allowed.push_back(route.method);
            continue;
        }
        for (std::size_t index = 0; index < segments.size(); ++index) {
            const std::string& wanted = route.pattern[index];
            if (isPlace(wanted)) {
                places[wanted.substr(1, wanted.size() - 2)] = segments[index];
            }
        }
        match.route = &route;
        return match;
    }
    return match;
}

}  // namespace kolvan::server::http
