#pragma once

#include "companions/server/store/Connection.h"

#include <string>

namespace kolvan::server {

/// Writes a copy of a whole database into a new file, for this user alone, while others use the
/// database. The file is there under its name once it is whole and on the disk.
/// @throws StoreError when there is a file of that name already, or it cannot be written
void backUpTo(const std::string& file, Connection& database);

}  // namespace kolvan::server
