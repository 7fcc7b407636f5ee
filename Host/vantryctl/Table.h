// Lays out rows of text for a terminal, by the cells that each character takes there. Texts come from files and from programs' names, so nothing in
// them reaches the terminal as a control character.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vantryctl {

// `text` with everything that is not printable UTF-8 replaced, fit for a terminal.
std::string printable(std::string_view text);

// `text` in exactly `width` cells, filled with blanks, or cut and ended by "…".
std::string fitted(std::string_view text, std::size_t width, bool alignsRight = false);

class Table {
public:
    static constexpr std::size_t standardWidth = 80;
    static constexpr std::size_t unlimited = static_cast<std::size_t>(-1);

    // A column that `shrinks` gives way, down to a few characters, where the rows are too wide.
    struct Column {
        std::string title;
        bool shrinks = false;
        bool alignsRight = false;
    };

    explicit Table(std::vector<Column> tableColumns) : columns(std::move(tableColumns)) {}
    void add(std::vector<std::string> row);
    bool isEmpty() const { return rows.empty(); }

    // All lines, titles first, none longer than `width` unless no column can give way.
    std::string text(std::size_t width = standardWidth) const;
    // One row in the columns' present widths, without titles, for a table that goes on growing.
    std::string rowText(const std::vector<std::string>& row,
                        const std::vector<std::size_t>& widths) const;
    std::vector<std::size_t> widths(std::size_t width) const;
    // Those widths, wider where this row needs it.
    static std::vector<std::size_t> wideEnough(const std::vector<std::string>& row,
                                               std::vector<std::size_t> widths);
    std::string titleText(const std::vector<std::size_t>& widths) const;

private:
    std::vector<Column> columns;
    std::vector<std::vector<std::string>> rows;
};

// Breaks text into lines of at most `width` characters at its blanks, each behind `indent` blanks.
std::string wrapped(std::string_view text, std::size_t indent = 0,
                    std::size_t width = Table::standardWidth);

}  // namespace vantryctl
