// A table for people: columns as wide as their widest cell, two blanks between them, no rules.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "korvanectl/Text.h"

namespace korvane::ctl {

struct Cell {
    std::string text;  // any bytes; what may not reach a terminal is escaped
    Tone tone = Tone::plain;
};

enum class Align { left, right };

struct Column {
    std::string heading;
    Align align = Align::left;
};

class Table {
  public:
    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

    // One cell a column; missing ones are empty, further ones are left out.
    void addRow(std::vector<Cell> cells);
    // Lines that end in a line feed and in no blanks: the headings, then the rows.
    [[nodiscard]] std::string format(const Paint& paint) const;

  private:
    std::vector<Column> columns_;
    std::vector<std::vector<Cell>> rows_;
};

}  // namespace korvane::ctl
