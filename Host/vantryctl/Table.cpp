#include "Host/vantryctl/Table.h"

#include <clocale>
#include <cwchar>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "Platform/Common/Text.h"

namespace vantryctl {

namespace {

constexpr std::size_t gap = 2;
constexpr std::size_t narrowest = 8;
constexpr std::string_view ellipsis = "…";

bool continuesCharacter(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }

std::string_view firstCharacter(std::string_view text) {
    std::size_t length = 1;
    while (length < text.size() && continuesCharacter(text[length])) ++length;
    return text.substr(0, length);
}

// In a locale of its own: what the user's is decides nothing here.
locale_t wideCharacters() {
    static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    return locale;
}

// The cells that one character of UTF-8 takes: 2 for wide ones, 0 for those that join the one before.
std::size_t cellsOf(std::string_view character) {
    if (character.size() == 1 || wideCharacters() == nullptr) return 1;
    const locale_t before = uselocale(wideCharacters());
    wchar_t wide = 0;
    const bool isWhole = mbtowc(&wide, character.data(), character.size()) > 0;
    const int cells = isWhole ? wcwidth(wide) : 1;
    uselocale(before);
    return cells < 0 ? 1 : static_cast<std::size_t>(cells);
}

std::size_t lengthOf(std::string_view text) {
    std::size_t cells = 0;
    while (!text.empty()) {
        const auto character = firstCharacter(text);
        cells += cellsOf(character);
        text.remove_prefix(character.size());
    }
    return cells;
}

// As many characters from the beginning as fit `count` cells.
std::string_view firstCells(std::string_view text, std::size_t count) {
    std::size_t at = 0;
    while (at < text.size()) {
        const auto character = firstCharacter(text.substr(at));
        const auto cells = cellsOf(character);
        if (cells > count) break;
        count -= cells;
        at += character.size();
    }
    return text.substr(0, at);
}

void endLine(std::string& line) {
    line.erase(line.find_last_not_of(' ') + 1);
    line += '\n';
}

// The characters from U+0080 to U+009F are controls too, and those that turn the direction of writing
// make a text look like another.
bool isHidden(std::string_view character) {
    if (character.size() == 1)
        return static_cast<unsigned char>(character[0]) < 0x20 || character[0] == 0x7f;
    if (character.size() == 2 && character[0] == '\xc2')
        return static_cast<unsigned char>(character[1]) < 0xa0;
    return (character >= "\xe2\x80\xaa" && character <= "\xe2\x80\xae") ||
           (character >= "\xe2\x81\xa6" && character <= "\xe2\x81\xa9");
}

}  // namespace

std::string fitted(std::string_view text, std::size_t width, bool alignsRight) {
    if (lengthOf(text) > width) {
        auto cut = std::string(firstCells(text, width - 1)) + std::string(ellipsis);
        // A wide character may not have fitted the last cell.
        return cut + std::string(width - lengthOf(cut), ' ');
    }
    const std::string blanks(width - lengthOf(text), ' ');
    return alignsRight ? blanks + std::string(text) : std::string(text) + blanks;
}

std::string printable(std::string_view text) {
    const std::string valid = platform::validUTF8(text);
    std::string shown;
    for (std::size_t at = 0; at < valid.size();) {
        const auto character = firstCharacter(std::string_view(valid).substr(at));
        shown += isHidden(character) ? std::string_view("?") : character;
        at += character.size();
    }
    return shown;
}

void Table::add(std::vector<std::string> row) {
    std::ranges::transform(row, row.begin(), [](const auto& cell) { return printable(cell); });
    rows.push_back(std::move(row));
}

std::vector<std::size_t> Table::widths(std::size_t width) const {
    std::vector<std::size_t> widths;
    std::size_t total = gap * (columns.size() - 1);
    for (std::size_t column = 0; column < columns.size(); ++column) {
        std::size_t widest = lengthOf(columns[column].title);
        for (const auto& row : rows) widest = std::max(widest, lengthOf(row[column]));
        widths.push_back(widest);
        total += widest;
    }
    // The widest column that may shrink gives way, one character at a time.
    for (; total > width; --total) {
        std::size_t* widest = nullptr;
        for (std::size_t column = 0; column < columns.size(); ++column)
            if (columns[column].shrinks && widths[column] > narrowest &&
                (widest == nullptr || widths[column] > *widest))
                widest = &widths[column];
        if (widest == nullptr) break;
        --*widest;
    }
    return widths;
}

std::vector<std::size_t> Table::wideEnough(const std::vector<std::string>& row,
                                           std::vector<std::size_t> widths) {
    for (std::size_t column = 0; column < row.size(); ++column)
        widths[column] = std::max(widths[column], lengthOf(row[column]));
    return widths;
}

std::string Table::rowText(const std::vector<std::string>& row,
                           const std::vector<std::size_t>& widths) const {
    std::string line;
    for (std::size_t column = 0; column < columns.size(); ++column) {
        if (column > 0) line.append(gap, ' ');
        line += fitted(row[column], widths[column], columns[column].alignsRight);
    }
    endLine(line);
    return line;
}

std::string Table::titleText(const std::vector<std::size_t>& widths) const {
    std::vector<std::string> titles;
    for (const auto& column : columns) titles.push_back(column.title);
    return rowText(titles, widths);
}

std::string Table::text(std::size_t width) const {
    const auto fitting = widths(width);
    std::string lines = titleText(fitting);
    for (const auto& row : rows) lines += rowText(row, fitting);
    return lines;
}

std::string wrapped(std::string_view text, std::size_t indent, std::size_t width) {
    std::string lines;
    std::string line;
    const auto finish = [&] {
        if (!line.empty()) lines += std::string(indent, ' ') + std::exchange(line, {}) + '\n';
    };
    while (!text.empty()) {
        const auto word = text.substr(0, text.find(' '));
        text.remove_prefix(std::min(word.size() + 1, text.size()));
        if (!line.empty() && indent + lengthOf(line) + 1 + lengthOf(word) > width) finish();
        if (!line.empty()) line += ' ';
        line += word;
    }
    finish();
    return lines;
}

}  // namespace vantryctl
