#pragma once

#include "companions/server/api/Api.h"

namespace kolvan::server::api {

/// The profiles of collections, whole and as views. `api` outlives the router's use.
void addProfileRoutes(Api& api, http::Router& router);

}  // namespace kolvan::server::api
