#pragma once

#include "companions/server/api/Api.h"

namespace kolvan::server::api {

/// What programs that watch the server ask for: whether it works, and its figures. `api` outlives
/// the router's use.
void addWatchRoutes(Api& api, http::Router& router);

}  // namespace kolvan::server::api
