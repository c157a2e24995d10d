#pragma once

#include "companions/server/store/Connection.h"

namespace kolvan::server {

/// A change of the database that happens whole or not at all. It is undone unless it was committed.
class WriteTransaction {
public:
    /// Waits for its turn here, and not in the middle where the work would have to be repeated.
    explicit WriteTransaction(Connection& connection);
    ~WriteTransaction();

    WriteTransaction(const WriteTransaction&) = delete;
    WriteTransaction& operator=(const WriteTransaction&) = delete;

    void commit();

private:
    Connection& connection;
};

}  // namespace kolvan::server
