#include "companions/server/store/WriteTransaction.h"

#include "companions/server/store/StoreError.h"

namespace kolvan::server {

WriteTransaction::WriteTransaction(Connection& ownConnection) : connection(ownConnection) {
    connection.run("BEGIN IMMEDIATE");
}

WriteTransaction::~WriteTransaction() {
    // Some failures, such as a full disk, have undone it already.
    if (connection.inTransaction()) {
        try {
            connection.run("ROLLBACK");
        } catch (const StoreError&) {
            // Undoing reads nothing from the disk. Should it fail all the same, the next
            // transaction cannot begin, and says so.
        }
    }
}

void WriteTransaction::commit() {
    connection.run("COMMIT");
}

}  // namespace kolvan::server
