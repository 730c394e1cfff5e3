#include "Table.h"

#include <cstdio>

std::string percentText(unsigned int value) {
    return std::to_string(value) + " %";
}

std::string bytesText(std::uint64_t bytes) {
    static char const* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
    double number = static_cast<double>(bytes);
    unsigned int unit = 0;
    for (; number >= 1024 && unit < 5; ++unit)
        number /= 1024;
    char text[32];
    std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", number, kUnits[unit]);
    return text;
}

std::string alarmText(watchedPart::AlarmState const& alarm) {
    return percentText(alarm.limit) + (alarm.raised ? " ALARM" : "");
}

void Table::heading(std::vector<std::string> const& cells) {
    text_ += '\n';
    row(cells);
}

void Table::row(std::vector<std::string> const& cells) {
    constexpr int kName = 24;
    constexpr int kFigure = 14;
    char cell[64];
    for (std::size_t i = 0; i < cells.size(); ++i) {
        std::snprintf(cell, sizeof cell, i == 0 ? "  %-*.*s" : "%*.*s", i == 0 ? kName : kFigure,
                      i == 0 ? kName : kFigure, cells[i].c_str());
        text_ += cell;
    }
    text_ += '\n';
}
