#pragma once

#include "companions/server/accounts/Logins.h"
#include "companions/server/collections/OutputFiles.h"
#include "companions/server/store/Store.h"

#include <cstdint>

namespace kolvan::server {

/// Lines that the audit keeps; older ones are removed. They take about 100 MB.
inline constexpr std::uint64_t kAuditLines = 500'000;

/// Removes what nobody needs any more: ended sessions, old lines of the audit, and operations that
/// belong to no collection, such as lists of processes, with their output; the latest ones
/// of each kind and agent stay. Blocks on the store and the disk.
/// @throws StoreError, std::filesystem::filesystem_error
void tidyUp(Store& store, Logins& logins, const OutputFiles& outputs);

}  // namespace kolvan::server
