#pragma once

#include "companions/server/api/Api.h"

namespace kolvan::server::api {

/// The tokens of programs and agents. `api` outlives the router's use.
void addTokenRoutes(Api& api, http::Router& router);

}  // namespace kolvan::server::api
