#pragma once

#include "basekit2/UniqueFd.h"

#include <string>

namespace kolvan::server {

/// Held while a database file is opened: one process at a time makes it, chooses its journal and
/// brings it to the current layout. SQLite's own locks do not do for that. Choosing the journal
/// turns a lock for reading into the only one, and of two that try this at once one fails without
/// having waited; and between two looks at a file another process may have made its tables.
///
/// It is a lock of flock(2) on the directory of the file: nothing is left behind by whoever dies
/// with it, and closing it takes none of SQLite's locks off the file itself.
class OpeningLock {
public:
    /// Waits for its turn.
    /// @throws StoreError when the directory cannot be locked, or is not there
    explicit OpeningLock(const std::string& databaseFile);

private:
    basekit2::UniqueFd directory;
};

}  // namespace kolvan::server
