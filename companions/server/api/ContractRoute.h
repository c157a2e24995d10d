#pragma once

#include "companions/server/api/Api.h"

#include <string_view>

namespace kolvan::server::api {

/// The description of the API, openapi.json, as it was when the server was built.
std::string_view contract() noexcept;

/// Shows it to everybody. `api` outlives the router's use.
void addContractRoute(Api& api, http::Router& router);

}  // namespace kolvan::server::api
