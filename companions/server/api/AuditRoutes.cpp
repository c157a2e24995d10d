#include "companions/server/api/AuditRoutes.h"

#include "companions/server/api/Query.h"
#include "companions/server/api/RecordJson.h"
#include "companions/server/http/OnPool.h"

namespace kolvan::server::api {

namespace {

using http::Awaitable;
using http::Response;

Awaitable<Response> list(const Surroundings& parts, http::Request& request) {
    const Query query(request, {"actor", "action", "cursor", "limit"});
    const AuditFilter filter{query.text("actor").value_or(""), query.text("action").value_or("")};
    const PageRequest page = query.page();
    const auto find = [&] { return parts.store.audit().list(filter, page); };
    co_return http::jsonResponse(
        pageJson(co_await http::onPool(parts.threads, find), writeAuditLine));
}

}  // namespace

void addAuditRoutes(Api& api, http::Router& router) {
    const Surroundings& parts = api.parts();
    api.add(router, "GET", "/api/v1/audit", Permission::ReadAudit,
            [&parts](http::Request& request, const Caller&) { return list(parts, request); });
}

}  // namespace kolvan::server::api
