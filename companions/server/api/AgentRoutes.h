#pragma once

#include "companions/server/api/Api.h"

namespace kolvan::server::api {

/// Agents, and the processes of their machines. `api` outlives the router's use.
void addAgentRoutes(Api& api, http::Router& router);

}  // namespace kolvan::server::api
