#include "korvanectl/Table.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace korvane::ctl {

namespace {

constexpr std::size_t kGap = 2;

// One line; `pending` blanks are written only before further text, so that none end the line.
std::string formatLine(const std::vector<Cell>& cells, const std::vector<Column>& columns,
                       const std::vector<std::size_t>& widths, const Paint& paint) {
    std::string line;
    std::size_t pending = 0;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        const std::size_t slack = widths[i] - displayWidth(cells[i].text);
        if (columns[i].align == Align::right) {
            pending += slack;
        }
        if (!cells[i].text.empty()) {
            line.append(pending, ' ');
            line += paint(cells[i].tone, cells[i].text);
            pending = 0;
        }
        pending += kGap + (columns[i].align == Align::left ? slack : 0);
    }
    return line + '\n';
}

}  // namespace

void Table::addRow(std::vector<Cell> cells) {
    cells.resize(columns_.size());
    for (Cell& cell : cells) {
        cell.text = printable(cell.text);
    }
    rows_.push_back(std::move(cells));
}

std::string Table::format(const Paint& paint) const {
    std::vector<std::size_t> widths;
    std::vector<Cell> headings;
    for (const Column& column : columns_) {
        widths.push_back(displayWidth(column.heading));
        headings.push_back({column.heading, Tone::heading});
    }
    for (const auto& row : rows_) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], displayWidth(row[i].text));
        }
    }
    std::string out = formatLine(headings, columns_, widths, paint);
    for (const auto& row : rows_) {
        out += formatLine(row, columns_, widths, paint);
    }
    return out;
}

}  // namespace korvane::ctl
