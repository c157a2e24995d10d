#pragma once

#include <sqlite3.h>

#include <memory>

namespace kolvan::server {

struct SqliteClose {
    // Statements that are still open keep the connection alive until they go too.
    void operator()(sqlite3* connection) const noexcept { (void)sqlite3_close_v2(connection); }
};
using SqliteHandle = std::unique_ptr<sqlite3, SqliteClose>;

struct SqliteFinalize {
    // Reports the statement's last error again, which was reported when it happened.
    void operator()(sqlite3_stmt* statement) const noexcept { (void)sqlite3_finalize(statement); }
};
using SqliteStatementHandle = std::unique_ptr<sqlite3_stmt, SqliteFinalize>;

}  // namespace kolvan::server
