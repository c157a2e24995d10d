#pragma once

#include "companions/server/api/Api.h"

namespace kolvan::server::api {

/// Adds every route of the API. Both outlive the server that uses the router.
void addRoutes(Api& api, http::Router& router);

}  // namespace kolvan::server::api
