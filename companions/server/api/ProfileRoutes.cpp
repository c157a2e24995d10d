#include "companions/server/api/ProfileRoutes.h"

#include "companions/server/api/CollectionView.h"
#include "companions/server/api/FileResponse.h"
#include "companions/server/api/ProfileViews.h"
#include "companions/server/api/Query.h"
#include "companions/server/http/HttpError.h"
#include "companions/server/http/OnPool.h"
#include "companions/server/profiles/Collapsed.h"
#include "companions/server/profiles/Comparison.h"
#include "companions/server/profiles/Filter.h"
#include "companions/server/profiles/FlameGraph.h"
#include "companions/server/profiles/Speedscope.h"
#include "companions/server/profiles/Top.h"

#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace kolvan::server::api {

namespace {

using http::Awaitable;
using http::Response;
using profiles::Filter;
using profiles::Sink;
using Profiles = ProfileViews::Profiles;

constexpr std::int64_t kMostFunctions = 10'000;
constexpr std::int64_t kUsualFunctions = 100;

constexpr const char* kJson = "application/json";
constexpr const char* kText = "text/plain; charset=utf-8";

std::vector<std::string_view> withFilter(std::vector<std::string_view> names) {
    names.insert(names.end(), {"thread", "from", "to", "sampleType"});
    return names;
}

Filter filterOf(const Query& query) {
    using Limits = std::numeric_limits<std::int64_t>;
    Filter filter;
    filter.thread = query.number("thread", Limits::min(), Limits::max());
    filter.from = query.number("from", 0, Limits::max());
    filter.to = query.number("to", 0, Limits::max());
    filter.sampleType = query.text("sampleType").value_or("");
    return filter;
}

std::string needText(const Query& query, std::string_view name) {
    const std::optional<std::string> text = query.text(name);
    if (!text) {
        throw http::HttpError(400, '"' + std::string(name) + "\" has to be given.");
    }
    return *text;
}

Awaitable<Response> showFile(const Surroundings& parts, http::Request& request) {
    const Query query(request, {});
    const auto open = [&] {
        return openFile(profileOf(parts, request.place("collection")), Missing::IsAnError);
    };
    co_return fileResponse(co_await http::onPool(parts.threads, open), "application/gzip");
}

/// A view of one collection's profile.
Awaitable<Response> show(const Surroundings& parts, http::Request& request, const char* type,
                         const ProfileViews::Write& write) {
    const auto find = [&] {
        return std::vector<std::filesystem::path>{profileOf(parts, request.place("collection"))};
    };
    const std::vector<std::filesystem::path> paths = co_await http::onPool(parts.threads, find);
    co_return co_await parts.views.make(request, paths, type, write);
}

Awaitable<Response> showSpeedscope(const Surroundings& parts, http::Request& request) {
    const Filter filter = filterOf(Query(request, withFilter({})));
    const std::string& id = request.place("collection");
    const auto find = [&] { return shownCollection(parts, id).collection.name; };
    std::string name = co_await http::onPool(parts.threads, find);
    if (name.empty()) {
        name = id;
    }
    const ProfileViews::Write write = [&](const Profiles& read, const Sink& sink) {
        profiles::writeSpeedscope(*read.front(), filter, name, sink);
    };
    co_return co_await show(parts, request, kJson, write);
}

Awaitable<Response> showCollapsed(const Surroundings& parts, http::Request& request) {
    const Filter filter = filterOf(Query(request, withFilter({})));
    const ProfileViews::Write write = [&](const Profiles& read, const Sink& sink) {
        profiles::writeCollapsed(*read.front(), filter, sink);
    };
    co_return co_await show(parts, request, kText, write);
}

Awaitable<Response> showFlameGraph(const Surroundings& parts, http::Request& request) {
    const Filter filter = filterOf(Query(request, withFilter({})));
    const ProfileViews::Write write = [&](const Profiles& read, const Sink& sink) {
        profiles::writeFlameGraph(*read.front(), filter, sink);
    };
    co_return co_await show(parts, request, kJson, write);
}

Awaitable<Response> showTop(const Surroundings& parts, http::Request& request) {
    const Query query(request, withFilter({"count"}));
    const Filter filter = filterOf(query);
    const auto count = static_cast<std::size_t>(
        query.number("count", 1, kMostFunctions).value_or(kUsualFunctions));
    const ProfileViews::Write write = [&](const Profiles& read, const Sink& sink) {
        profiles::writeTop(*read.front(), filter, count, sink);
    };
    co_return co_await show(parts, request, kJson, write);
}

Awaitable<Response> compare(const Surroundings& parts, http::Request& request) {
    const Query query(request, withFilter({"base", "other"}));
    const Filter filter = filterOf(query);
    const std::string base = needText(query, "base");
    const std::string other = needText(query, "other");
    const auto find = [&] {
        return std::vector<std::filesystem::path>{profileOf(parts, base), profileOf(parts, other)};
    };
    const std::vector<std::filesystem::path> paths = co_await http::onPool(parts.threads, find);
    const ProfileViews::Write write = [&](const Profiles& read, const Sink& sink) {
        profiles::writeComparison(profiles::compare(*read[0], *read[1], filter), sink);
    };
    co_return co_await parts.views.make(request, paths, kJson, write);
}

}  // namespace

void addProfileRoutes(Api& api, http::Router& router) {
    const Surroundings& parts = api.parts();
    const auto look = [&](const std::string& path, auto handler) {
        api.add(router, "GET", path, Permission::Look,
                [&parts, handler](http::Request& request, const Caller&) {
                    return handler(parts, request);
                });
    };
    const std::string one = "/api/v1/collections/{collection}";
    look(one + "/profile.pb.gz", showFile);
    look(one + "/profile.speedscope.json", showSpeedscope);
    look(one + "/profile.collapsed.txt", showCollapsed);
    look(one + "/flamegraph.json", showFlameGraph);
    look(one + "/top.json", showTop);
    look("/api/v1/compare", compare);
}

}  // namespace kolvan::server::api
