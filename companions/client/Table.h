#pragma once

#include <string>
#include <vector>

namespace kolvan::client {

/// Columns of text for a terminal.
class Table {
public:
    enum class Side { Left, Right };

    struct Column {
        std::string title;
        Side side = Side::Left;
    };

    explicit Table(std::vector<Column> tableColumns);

    /// Adds a row with a cell for each column; cells are made printable.
    void add(std::vector<std::string> cells);

    /// The table with its titles, a line for each row.
    std::string text() const;

private:
    const std::vector<Column> columns;
    std::vector<std::vector<std::string>> rows;
};

}  // namespace kolvan::client
