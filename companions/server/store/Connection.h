#pragma once

#include "companions/server/store/SqliteHandles.h"
#include "companions/server/store/Statement.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kolvan::server {

/// One connection to a SQLite database, with the statements that it has prepared so far.
///
/// Threads: one at a time.
/// Everything here throws StoreError, whose text names the file.
class Connection {
public:
    enum class Access { ReadOnly, ReadWrite };

    /// Opens a file that exists. It waits up to five seconds whenever others have the file locked.
    Connection(std::string databaseFile, Access access);

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Makes a statement ready with these values for its parameters ?1, ?2 …
    template <typename... Values>
    Statement query(std::string_view sql, const Values&... values) {
        Statement statement = prepare(sql);
        (statement.bind(values), ...);
        return statement;
    }

    /// Carries a statement out that returns no rows. @return how many rows it has changed
    template <typename... Values>
    std::int64_t run(std::string_view sql, const Values&... values) {
        Statement statement = query(sql, values...);
        while (statement.step()) {
        }
        return changes();
    }

    /// Reads one value, of the first row and column; nothing when there is no row.
    template <typename Result, typename... Values>
    std::optional<Result> value(std::string_view sql, const Values&... values) {
        Statement statement = query(sql, values...);
        if (!statement.step()) {
            return std::nullopt;
        }
        Result result{};
        statement.read(result);
        return result;
    }

    /// Carries out several statements without parameters or rows, once.
    void script(const char* sql);

    /// Whether a transaction is open.
    bool inTransaction() const noexcept;

    /// Copies the whole database, as it is now, into another one.
    void copyTo(Connection& target);

    const std::string& file() const noexcept { return path; }

    /// Says that the file is damaged, how that shows, and what to do.
    std::string damageText(const std::string& symptom) const;

private:
    friend class Statement;

    Statement prepare(std::string_view sql);
    void takeBack(std::string text, SqliteStatementHandle statement) noexcept;
    std::int64_t changes() const noexcept;

    /// @throws StoreError when a result of SQLite is a failure
    void check(int result) const;

    std::string path;
    SqliteHandle handle;
    // By their text. A statement in use is not among them, so that a second use gets another one.
    std::unordered_map<std::string, SqliteStatementHandle> prepared;
};

}  // namespace kolvan::server
