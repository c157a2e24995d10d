#include "companions/server/serve/Housekeeping.h"

namespace kolvan::server {

namespace {

// The latest one, and the one before it, whose output somebody may just be reading.
constexpr std::size_t kKept = 2;

}  // namespace

void tidyUp(Store& store, Logins& logins, const OutputFiles& outputs) {
    logins.removeEnded();
    store.audit().keepNewest(kAuditLines);
    for (const OperationId& operation : store.operations().removeEnded(kKept)) {
        outputs.remove(operation);
    }
}

}  // namespace kolvan::server
