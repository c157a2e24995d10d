#pragma once

#include "companions/server/api/Api.h"

namespace kolvan::server::api {

/// Who has an account. `api` outlives the router's use.
void addUserRoutes(Api& api, http::Router& router);

}  // namespace kolvan::server::api
