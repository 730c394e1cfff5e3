#include "Table.h"

#include <algorithm>
#include <numeric>

namespace {

constexpr std::size_t kGap = 2;
constexpr std::size_t kNarrowest = 8;  // no column is cut below that
constexpr char kCut[] = "\xE2\x80\xA6";

bool isContinued(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

std::size_t countOfFilled(std::vector<std::string> const& cells) {
    std::size_t count = cells.size();
    while (count > 0 && cells[count - 1].empty())
        --count;
    return count;
}

}  // namespace

std::size_t widthOf(std::string const& text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return !isContinued(byte); }));
}

std::string cut(std::string const& text, std::size_t width) {
    std::string shown = text;
    for (std::size_t i = 0; i < shown.size(); ++i) {
        auto const byte = static_cast<unsigned char>(shown[i]);
        // The second byte of those beyond ASCII, which begin with 0xC2, is one of 0x80 to 0x9F.
        bool const isSecond = i > 0 && shown[i - 1] == '\xC2' && byte >= 0x80 && byte < 0xA0;
        if (isSecond)
            shown[i - 1] = ' ';
        if (byte < ' ' || byte == 0x7F || isSecond)
            shown[i] = ' ';
    }
    if (width == 0 || widthOf(shown) <= width)
        return shown;
    std::size_t end = 0;
    for (std::size_t left = width; end < shown.size(); ++end) {
        if (!isContinued(shown[end]) && left-- == 1)
            break;
    }
    return shown.substr(0, end) + kCut;
}

std::vector<std::size_t> Table::widths(std::size_t most, bool headings) const {
    std::vector<std::size_t> widths;
    for (Column const& column : columns_)
        widths.push_back(headings ? widthOf(column.heading) : 0);
    for (std::vector<std::string> const& row : rows_) {
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], widthOf(row[i]));
    }
    if (most == 0)
        return widths;
    std::size_t const gaps = kGap * (columns_.size() - 1);
    while (std::accumulate(widths.begin(), widths.end(), gaps) > most) {
        auto const widest = std::max_element(widths.begin(), widths.end());
        if (*widest <= kNarrowest)
            break;
        --*widest;
    }
    return widths;
}

/** The last one that is filled has the room of the empty ones behind it, too. */
std::string Table::line(std::vector<std::string> const& cells,
                        std::vector<std::size_t> const& widths) const {
    std::string text;
    std::size_t const count = countOfFilled(cells);
    for (std::size_t i = 0; i < count; ++i) {
        std::size_t const width = i + 1 < count
                                      ? widths[i]
                                      : std::accumulate(&widths[i], widths.data() + widths.size(),
                                                        kGap * (widths.size() - 1 - i));
        std::string const cell = cut(cells[i], width);
        std::string const fill(widths[i] - std::min(widths[i], widthOf(cell)), ' ');
        text += i == 0 ? "" : std::string(kGap, ' ');
        text += columns_[i].align == Align::kRight ? fill + cell : cell + fill;
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

// Where not even the narrowest columns find room, the last ones are cut off.
std::vector<std::string> Table::lines(std::size_t width, bool headings) const {
    std::vector<std::size_t> const wide = widths(width, headings);
    std::vector<std::string> all;
    if (headings) {
        std::vector<std::string> names;
        for (Column const& column : columns_)
            names.push_back(column.heading);
        all.push_back(cut(line(names, wide), width));
    }
    for (std::vector<std::string> const& row : rows_)
        all.push_back(cut(line(row, wide), width));
    return all;
}
