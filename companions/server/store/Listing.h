#pragma once

#include "companions/server/store/Connection.h"
#include "companions/server/store/Records.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace kolvan::server {

/// Puts together the statement for a page of a list: newest first, with the conditions of a filter.
///
/// A page goes on after the sequence number of the last row of the page before, so that rows which
/// come or go meanwhile move nothing.
class Listing {
public:
    /// @param select a statement up to its FROM clause, whose first column is the sequence number
    /// @param sequence that column's name
    Listing(std::string select, std::string sequence)
        : text(std::move(select)), order(std::move(sequence)) {}

    /// Adds a condition with "?" in the place of the value.
    template <typename Value>
    void where(const std::string& condition, Value value) {
        text += (values.empty() ? " WHERE " : " AND ") + condition;
        values.push_back(
            [value = std::move(value)](Statement& statement) { statement.bind(value); });
    }

    /// Reads the page. @param readRow returns a row as a record; its first column is the sequence
    /// number
    template <typename ReadRow>
    auto page(Connection& connection, const PageRequest& request, ReadRow readRow) {
        using Item = decltype(readRow(std::declval<const Statement&>()));
        where(order + " < ?", numberAfter(request.after));
        const std::size_t size = std::clamp<std::size_t>(request.size, 1, kLargestPage);
        text += " ORDER BY " + order + " DESC LIMIT " + std::to_string(size + 1);
        Statement statement = connection.query(text);
        for (const auto& bind : values) {
            bind(statement);
        }
        Page<Item> page;
        std::int64_t last = 0;
        while (statement.step()) {
            if (page.items.size() == size) {
                page.next = std::to_string(last);
                break;
            }
            statement.read(last);
            page.items.push_back(readRow(statement));
        }
        return page;
    }

private:
    static constexpr std::size_t kLargestPage = 1000;

    // What is no number of a page never was one of ours: nothing comes after it.
    static std::int64_t numberAfter(const std::string& cursor) {
        if (cursor.empty()) {
            return std::numeric_limits<std::int64_t>::max();
        }
        std::int64_t number = 0;
        const char* const end = cursor.data() + cursor.size();
        const auto [stop, error] = std::from_chars(cursor.data(), end, number);
        return error == std::errc() && stop == end ? number : 0;
    }

    std::string text;
    std::string order;
    std::vector<std::function<void(Statement&)>> values;
};

}  // namespace kolvan::server
