#include "companions/server/api/Routes.h"

#include "companions/server/api/AgentRoutes.h"
#include "companions/server/api/AuditRoutes.h"
#include "companions/server/api/CollectionRoutes.h"
#include "companions/server/api/ContractRoute.h"
#include "companions/server/api/EventRoutes.h"
#include "companions/server/api/ProfileRoutes.h"
#include "companions/server/api/SessionRoutes.h"
#include "companions/server/api/SymbolRoutes.h"
#include "companions/server/api/TokenRoutes.h"
#include "companions/server/api/UserRoutes.h"
#include "companions/server/api/WatchRoutes.h"

namespace kolvan::server::api {

void addRoutes(Api& api, http::Router& router) {
    addAgentRoutes(api, router);
    addCollectionRoutes(api, router);
    addEventRoutes(api, router);
    addProfileRoutes(api, router);
    addSymbolRoutes(api, router);
    addSessionRoutes(api, router);
    addTokenRoutes(api, router);
    addUserRoutes(api, router);
    addAuditRoutes(api, router);
    addWatchRoutes(api, router);
    addContractRoute(api, router);
}

}  // namespace kolvan::server::api
