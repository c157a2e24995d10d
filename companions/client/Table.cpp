#include "companions/client/Table.h"

#include "companions/client/Printable.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace kolvan::client {

Table::Table(std::vector<Column> tableColumns) : columns(std::move(tableColumns)) {
    std::vector<std::string>& titles = rows.emplace_back();
    for (const Column& column : columns) {
        titles.push_back(column.title);
    }
}

void Table::add(std::vector<std::string> cells) {
    for (std::string& cell : cells) {
        cell = printable(cell);
    }
    rows.push_back(std::move(cells));
}

std::string Table::text() const {
    std::vector<std::size_t> widths(columns.size());
    for (const auto& row : rows) {
        for (std::size_t index = 0; index < widths.size(); ++index) {
            widths[index] = std::max(widths[index], width(row[index]));
        }
    }
    std::string text;
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t index = 0; index < widths.size(); ++index) {
            const std::string padding(widths[index] - width(row[index]), ' ');
            line += index == 0 ? "" : "  ";
            line += columns[index].side == Side::Left ? row[index] + padding : padding + row[index];
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    return text;
}

}  // namespace kolvan::client
