#pragma once

#include "companions/server/api/Api.h"

namespace kolvan::server::api {

/// Who is asking, and how one logs in and out. `api` outlives the router's use.
void addSessionRoutes(Api& api, http::Router& router);

}  // namespace kolvan::server::api
