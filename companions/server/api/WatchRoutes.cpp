#include "companions/server/api/WatchRoutes.h"

#include "companions/server/api/MetricsText.h"
#include "companions/server/api/StoreHealth.h"
#include "companions/server/http/HttpError.h"
#include "companions/server/http/OnPool.h"
#include "companions/server/store/Names.h"

#include <map>
#include <memory>
#include <utility>

namespace kolvan::server::api {

namespace {

using http::Awaitable;
using http::Response;
using Kind = MetricsText::Kind;

/// The figures that take a look into the store.
struct StoredFigures {
    std::map<AgentPresence, std::uint64_t> agents;
    std::map<CollectionState, std::uint64_t> collections;
    std::int64_t auditLines = 0;
};

StoredFigures storedFigures(Store& store) {
    const Page<AuditLine> newest = store.audit().list({}, {1, ""});
    return {store.agents().count(), store.collections().count(),
            newest.items.empty() ? 0 : newest.items.front().number};
}

/// A sample for each value of a type, also those of which there is none.
template <Named Value>
void writeCounts(MetricsText& text, std::string_view label,
                 const std::map<Value, std::uint64_t>& counts) {
    for (const std::string_view word : Names<Value>::words) {
        const auto found = counts.find(*valueOf<Value>(word));
        text.sample(found == counts.end() ? 0 : found->second, {{label, word}});
    }
}

std::string metricsText(const Surroundings& parts, const StoredFigures& stored) {
    MetricsText text;
    text.begin("kolvan_agents", Kind::Gauge, "Agents by their presence.");
    writeCounts(text, "presence", stored.agents);
    text.begin("kolvan_collections", Kind::Gauge, "Collections that are kept, by their state.");
    writeCounts(text, "state", stored.collections);
    text.begin("kolvan_held_polls", Kind::Gauge, "Requests of agents for commands that wait.");
    text.sample(parts.heldPolls());
    text.begin("kolvan_connections", Kind::Gauge, "Connections of agents, programs and browsers.");
    text.sample(parts.traffic->connections);
    text.begin("kolvan_output_bytes_total", Kind::Counter, "Output of collectors that was kept.");
    text.sample(parts.outputs.added());
    text.begin("kolvan_upload_bytes_total", Kind::Counter, "Bytes of files that agents have sent.");
    text.sample(parts.uploads.received());
    text.begin("kolvan_http_responses_total", Kind::Counter,
               "Answers by the class of their status.");
    for (std::size_t digit = 1; digit < parts.traffic->responses.size(); ++digit) {
        text.sample(parts.traffic->responses[digit], {{"class", std::to_string(digit) + "xx"}});
    }
    text.begin("kolvan_audit_lines_total", Kind::Counter,
               "Lines of the audit that were ever written.");
    text.sample(static_cast<std::uint64_t>(stored.auditLines));
    return text.text();
}

Awaitable<Response> showHealth(const std::shared_ptr<StoreHealth>& health) {
    if (const std::optional<std::string> problem = co_await health->problem()) {
        throw http::HttpError(503, *problem);
    }
    co_return http::textResponse(200, "text/plain; charset=utf-8", "ok\n");
}

Awaitable<Response> showMetrics(const Surroundings& parts) {
    const auto look = [&] { return storedFigures(parts.store); };
    const StoredFigures stored = co_await http::onPool(parts.threads, look);
    co_return http::textResponse(200, MetricsText::kContentType, metricsText(parts, stored));
}

}  // namespace

void addWatchRoutes(Api& api, http::Router& router) {
    const Surroundings& parts = api.parts();
    const auto health = std::make_shared<StoreHealth>(parts.store, parts.clock, parts.threads);

    api.addOpen(router, "GET", "/healthz", [health](http::Request&) { return showHealth(health); });
    api.add(router, "GET", "/metrics", Permission::Look,
            [&parts](http::Request&, const Caller&) { return showMetrics(parts); });
}

}  // namespace kolvan::server::api
