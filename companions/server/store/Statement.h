#pragma once

#include "companions/server/store/Names.h"
#include "companions/server/store/Records.h"
#include "companions/server/store/SqliteHandles.h"

#include <chrono>
#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kolvan::server {

class Connection;

/// One use of a prepared statement: values in, rows out. Its end makes it free for the next use.
///
/// Values of the records' types are bound to and read from columns by themselves: times as
/// milliseconds, digests as blobs, enumerations as their words, lists of texts as JSON. Threads:
/// that of its connection.
class Statement {
public:
    ~Statement();

    Statement(Statement&& other) noexcept = default;
    Statement& operator=(Statement&& other) = delete;

    /// Gives the next parameter its value; parameters are numbered from ?1.
    template <typename Value>
    void bind(const Value& value) {
        bindAt(++bound, value);
    }

    /// Goes to the next row. @return whether there is one
    /// @throws StoreError
    bool step();

    /// Reads the row's columns from the first one on.
    /// @throws StoreError with `Damaged` when a column holds what cannot have been written into it
    template <typename... Values>
    void read(Values&... values) const {
        int column = 0;
        (readAt(column++, values), ...);
    }

private:
    friend class Connection;

    Statement(Connection& ownConnection, std::string ownText, SqliteStatementHandle ownHandle);

    void bindAt(int place, std::string_view value);
    void bindAt(int place, const char* value) { bindAt(place, std::string_view(value)); }
    void bindAt(int place, const std::string& value) { bindAt(place, std::string_view(value)); }
    void bindAt(int place, std::int64_t value);
    void bindAt(int place, const Sha256& value);
    void bindAt(int place, const std::vector<std::string>& value);
    void bindNull(int place);

    void bindAt(int place, UtcTime value) { bindAt(place, value.time_since_epoch()); }
    void bindAt(int place, std::chrono::milliseconds value) {
        bindAt(place, std::int64_t(value.count()));
    }
    template <std::integral Value>
    void bindAt(int place, Value value) {
        bindAt(place, static_cast<std::int64_t>(value));
    }
    template <Named Value>
    void bindAt(int place, Value value) {
        bindAt(place, nameOf(value));
    }
    template <typename Thing>
    void bindAt(int place, const Id<Thing>& value) {
        bindAt(place, std::string_view(value.text));
    }
    template <typename Value>
    void bindAt(int place, const std::optional<Value>& value) {
        if (value) {
            bindAt(place, *value);
        } else {
            bindNull(place);
        }
    }

    bool isNull(int column) const;
    std::string_view textAt(int column) const;
    [[noreturn]] void refuse(int column) const;

    void readAt(int column, std::int64_t& value) const;
    void readAt(int column, std::string& value) const { value = textAt(column); }
    void readAt(int column, Sha256& value) const;
    void readAt(int column, std::vector<std::string>& value) const;

    void readAt(int column, UtcTime& value) const {
        std::chrono::milliseconds sinceEpoch;
        readAt(column, sinceEpoch);
        value = UtcTime(sinceEpoch);
    }
    void readAt(int column, std::chrono::milliseconds& value) const {
        std::int64_t count = 0;
        readAt(column, count);
        value = std::chrono::milliseconds(count);
    }
    template <std::integral Value>
    void readAt(int column, Value& value) const {
        std::int64_t number = 0;
        readAt(column, number);
        value = static_cast<Value>(number);
    }
    template <Named Value>
    void readAt(int column, Value& value) const {
        const std::optional<Value> known = valueOf<Value>(textAt(column));
        if (!known) {
            refuse(column);
        }
        value = *known;
    }
    template <typename Thing>
    void readAt(int column, Id<Thing>& value) const {
        value.text = textAt(column);
    }
    template <typename Value>
    void readAt(int column, std::optional<Value>& value) const {
        value.reset();
        if (!isNull(column)) {
            readAt(column, value.emplace());
        }
    }

    Connection* connection;
    std::string text;
    SqliteStatementHandle handle;  // none after a move
    int bound = 0;
};

}  // namespace kolvan::server
