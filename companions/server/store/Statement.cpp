#include "companions/server/store/Statement.h"

#include "companions/server/store/Connection.h"
#include "companions/server/store/StoreError.h"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <utility>

namespace kolvan::server {

Statement::Statement(Connection& ownConnection, std::string ownText,
                     SqliteStatementHandle ownHandle)
    : connection(&ownConnection), text(std::move(ownText)), handle(std::move(ownHandle)) {}

Statement::~Statement() {
    if (handle) {
        connection->takeBack(std::move(text), std::move(handle));
    }
}

void Statement::bindAt(int place, std::string_view value) {
    // A view of nothing has no address, which SQLite would take for NULL.
    const char* const bytes = value.data() == nullptr ? "" : value.data();
    connection->check(sqlite3_bind_text64(handle.get(), place, bytes, value.size(),
                                          SQLITE_TRANSIENT, SQLITE_UTF8));
}

void Statement::bindAt(int place, std::int64_t value) {
    connection->check(sqlite3_bind_int64(handle.get(), place, value));
}

void Statement::bindAt(int place, const Sha256& value) {
    connection->check(sqlite3_bind_blob64(handle.get(), place, value.bytes.data(),
                                          value.bytes.size(), SQLITE_TRANSIENT));
}

void Statement::bindAt(int place, const std::vector<std::string>& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartArray();
    for (const std::string& item : value) {
        writer.String(item.data(), static_cast<rapidjson::SizeType>(item.size()));
    }
    writer.EndArray();
    bindAt(place, std::string_view(buffer.GetString(), buffer.GetSize()));
}

void Statement::bindNull(int place) {
    connection->check(sqlite3_bind_null(handle.get(), place));
}

bool Statement::step() {
    const int result = sqlite3_step(handle.get());
    if (result != SQLITE_ROW && result != SQLITE_DONE) {
        connection->check(result);
    }
    return result == SQLITE_ROW;
}

bool Statement::isNull(int column) const {
    return sqlite3_column_type(handle.get(), column) == SQLITE_NULL;
}

std::string_view Statement::textAt(int column) const {
    const auto* const bytes = sqlite3_column_text(handle.get(), column);
    if (bytes == nullptr) {
        refuse(column);
    }
    return {reinterpret_cast<const char*>(bytes),
            static_cast<std::size_t>(sqlite3_column_bytes(handle.get(), column))};
}

void Statement::refuse(int column) const {
    throw StoreError(StoreError::Reason::Damaged,
                     connection->damageText("the column " +
                                            std::string(sqlite3_column_name(handle.get(), column)) +
                                            " holds what no server has written"));
}

void Statement::readAt(int column, std::int64_t& value) const {
    if (sqlite3_column_type(handle.get(), column) != SQLITE_INTEGER) {
        refuse(column);
    }
    value = sqlite3_column_int64(handle.get(), column);
}

void Statement::readAt(int column, Sha256& value) const {
    const auto* const bytes =
        static_cast<const std::byte*>(sqlite3_column_blob(handle.get(), column));
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(handle.get(), column));
    if (bytes == nullptr || size != value.bytes.size()) {
        refuse(column);
    }
    std::copy_n(bytes, size, value.bytes.begin());
}

void Statement::readAt(int column, std::vector<std::string>& value) const {
    const std::string_view json = textAt(column);
    rapidjson::Document list;
    list.Parse(json.data(), json.size());
    if (list.HasParseError() || !list.IsArray()) {
        refuse(column);
    }
    value.clear();
    for (const auto& item : list.GetArray()) {
        if (!item.IsString()) {
            refuse(column);
        }
        value.emplace_back(item.GetString(), item.GetStringLength());
    }
}

}  // namespace kolvan::server
