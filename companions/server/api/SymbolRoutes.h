#pragma once

#include "companions/server/api/Api.h"

namespace kolvan::server::api {

/// Files with the names that stripped ones lack. `api` outlives the router's use.
void addSymbolRoutes(Api& api, http::Router& router);

}  // namespace kolvan::server::api
