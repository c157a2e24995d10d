#include "companions/server/api/ContractRoute.h"

#include <string>

namespace kolvan::server::api {

namespace {

http::Awaitable<http::Response> show() {
    co_return http::jsonResponse(std::string(contract()));
}

}  // namespace

void addContractRoute(Api& api, http::Router& router) {
    api.addOpen(router, "GET", "/api/v1/openapi.json", [](http::Request&) { return show(); });
}

}  // namespace kolvan::server::api
