#pragma once

#include "companions/server/api/Api.h"

namespace kolvan::server::api {

/// Who did what. `api` outlives the router's use.
void addAuditRoutes(Api& api, http::Router& router);

}  // namespace kolvan::server::api
