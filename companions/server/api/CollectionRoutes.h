#pragma once

#include "companions/server/api/Api.h"

namespace kolvan::server::api {

/// Collections: made, listed, changed, stopped, removed, and their output and files. `api` outlives
/// the router's use.
void addCollectionRoutes(Api& api, http::Router& router);

}  // namespace kolvan::server::api
