#include "companions/server/api/Routes.h"

#include "companions/server/api/AgentRoutes.h"
#include "companions/server/api/CollectionRoutes.h"

namespace kolvan::server::api {

void addRoutes(Api& api, http::Router& router) {
    addAgentRoutes(api, router);
    addCollectionRoutes(api, router);
}

}  // namespace kolvan::server::api
