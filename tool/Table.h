// Columns of text for people.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

/** Rows of cells under headings. A value. */
class Table {
public:
    enum class Align { kLeft, kRight };
    struct Column {
        std::string heading;
        Align align = Align::kLeft;
    };

    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

    /** As many cells as there are columns. */
    void add(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
    bool empty() const { return rows_.empty(); }

    /** The lines, aligned; no wider than `width`, for which the widest cells are cut, unless that
     * is 0. The headings come first, if they are wanted. */
    std::vector<std::string> lines(std::size_t width, bool headings) const;

private:
    std::vector<std::size_t> widths(std::size_t most, bool headings) const;
    std::string line(std::vector<std::string> const& cells,
                     std::vector<std::size_t> const& widths) const;

    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
};

/** How many columns of a terminal a text takes, as far as one for each character goes. */
std::size_t widthOf(std::string const& text);
/** The text without control characters and line ends, and, if it is wider than `width`, cut with a
 * sign at its end; 0 for any width. */
std::string cut(std::string const& text, std::size_t width);
