#pragma once

#include "companions/server/store/Connection.h"

namespace kolvan::server {

/// Version of the layout that this program reads and writes.
int currentSchemaVersion() noexcept;

/// Brings a database, which may be empty, to the current layout, one version after the other; each
/// step is done whole or not at all. Several processes may do so at once.
/// @throws StoreError with `NewerSchema` when a newer server has written it, with `Damaged` when it
/// is not
///         whole, with `Failed` when it is something else's database
void migrate(Connection& connection);

}  // namespace kolvan::server
