// Prints the panel's table. Nothing here knows of remote calls.
#pragma once

#include <string>
#include <vector>

#include "generated/machine.h"

/** A figure of the table as text. */
std::string percentText(unsigned int value);
std::string bytesText(std::uint64_t bytes);
/** "90 %", and a mark when the alarm is raised. */
std::string alarmText(watchedPart::AlarmState const& alarm);

/** Lines of aligned columns, grown one by one. */
class Table {
public:
    /** A line of headings, set off from what stands above. */
    void heading(std::vector<std::string> const& cells);
    void row(std::vector<std::string> const& cells);
    std::string const& text() const { return text_; }

private:
    std::string text_;
};
