// What every subcommand may be told.
#pragma once

#include <chrono>

struct Settings {
    bool json = false;
    bool full = false;     // nothing is cut
    bool verbose = false;  // the library's log, too
    double timeout = 5;    // seconds

    std::chrono::nanoseconds patience() const {
        return std::chrono::nanoseconds(static_cast<long long>(timeout * 1e9));
    }
};
