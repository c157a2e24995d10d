#include "companions/server/store/Connection.h"

#include "companions/server/store/StoreError.h"

#include <memory>
#include <utility>

namespace kolvan::server {

namespace {

// Another process holds the lock while it changes a few rows; even a slow disk is done by then.
constexpr int kPatienceMs = 5000;

StoreError::Reason reasonOf(int code) {
    switch (code & 0xFF) {
        case SQLITE_FULL:
            return StoreError::Reason::Full;
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return StoreError::Reason::Busy;
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return StoreError::Reason::Damaged;
        default:
            return StoreError::Reason::Failed;
    }
}

}  // namespace

Connection::Connection(std::string databaseFile, Access access) : path(std::move(databaseFile)) {
    // Its own locks would guard what one thread at a time uses anyway.
    const int flags = SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE |
                      (access == Access::ReadOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE);
    sqlite3* opened = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &opened, flags, nullptr);
    handle.reset(opened);  // also after a failure, of which it holds the text
    if (!handle) {
        throw std::bad_alloc();
    }
    check(result);
    check(sqlite3_busy_timeout(handle.get(), kPatienceMs));
    script("PRAGMA foreign_keys=ON; PRAGMA trusted_schema=OFF;");
}

void Connection::script(const char* sql) {
    check(sqlite3_exec(handle.get(), sql, nullptr, nullptr, nullptr));
}

bool Connection::inTransaction() const noexcept {
    return sqlite3_get_autocommit(handle.get()) == 0;
}

void Connection::copyTo(Connection& target) {
    const auto end = [](sqlite3_backup* backup) { (void)sqlite3_backup_finish(backup); };
    const std::unique_ptr<sqlite3_backup, decltype(end)> backup(
        sqlite3_backup_init(target.handle.get(), "main", handle.get(), "main"), end);
    if (!backup) {
        target.check(sqlite3_extended_errcode(target.handle.get()));
    }
    // All pages in one step are one read transaction: a moment's state, which holds up no writer.
    const int result = sqlite3_backup_step(backup.get(), -1);
    if (result != SQLITE_DONE) {
        throw StoreError(reasonOf(result), "Failed to copy " + path + " to " + target.path + ": " +
                                               sqlite3_errstr(result));
    }
}

Statement Connection::prepare(std::string_view sql) {
    std::string text(sql);
    if (auto known = prepared.extract(text)) {
        return {*this, std::move(known.key()), std::move(known.mapped())};
    }
    sqlite3_stmt* statement = nullptr;
    check(sqlite3_prepare_v3(handle.get(), text.data(), static_cast<int>(text.size()),
                             SQLITE_PREPARE_PERSISTENT, &statement, nullptr));
    return {*this, std::move(text), SqliteStatementHandle(statement)};
}

void Connection::takeBack(std::string text, SqliteStatementHandle statement) noexcept {
    // Repeats the error of the last step, which was reported then.
    (void)sqlite3_reset(statement.get());
    (void)sqlite3_clear_bindings(statement.get());
    try {
        prepared.try_emplace(std::move(text), std::move(statement));
    } catch (const std::bad_alloc&) {
        // It will be prepared again.
    }
}

std::int64_t Connection::changes() const noexcept {
    return sqlite3_changes64(handle.get());
}

void Connection::check(int result) const {
    if (result == SQLITE_OK) {
        return;
    }
    const StoreError::Reason reason = reasonOf(result);
    const std::string text = sqlite3_errmsg(handle.get());
    switch (reason) {
        case StoreError::Reason::Damaged:
            throw StoreError(reason, damageText(text));
        case StoreError::Reason::Full:
            throw StoreError(reason, "The disk with " + path + " is full");
        case StoreError::Reason::Busy:
            throw StoreError(reason, path + " was locked by another program for too long");
        default:
            throw StoreError(reason, path + ": " + text);
    }
}

std::string Connection::damageText(const std::string& symptom) const {
    return path + " is damaged (" + symptom + "). Stop the server, move " + path + ", " + path +
           "-wal and " + path + "-shm away, and put a backup in the place of the first";
}

}  // namespace kolvan::server
