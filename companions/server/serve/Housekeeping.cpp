#include "companions/server/serve/Housekeeping.h"

namespace kolvan::server {

namespace {

// Some, so that the last good list of processes outlives attempts that fail.
constexpr std::size_t kKept = 8;

}  // namespace

void tidyUp(Store& store, Logins& logins, const OutputFiles& outputs) {
    logins.removeEnded();
    store.audit().keepNewest(kAuditLines);
    for (const OperationId& operation : store.operations().removeEnded(kKept)) {
        outputs.remove(operation);
    }
}

}  // namespace kolvan::server
