#include "companions/server/api/Routes.h"

#include "companions/server/api/AgentRoutes.h"
#include "companions/server/api/CollectionRoutes.h"
#include "companions/server/api/EventRoutes.h"

namespace kolvan::server::api {

void addRoutes(Api& api, http::Router& router) {
    addAgentRoutes(api, router);
    addCollectionRoutes(api, router);
    addEventRoutes(api, router);
}

}  // namespace kolvan::server::api
