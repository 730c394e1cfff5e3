// What processes tell, as Prometheus reads it.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "Facts.h"

/** Writes metrics, and keeps how long processes have taken to answer. Any thread. */
class Metrics {
public:
    /** Asks all processes of the group. */
    std::string text(Settings const& settings);

private:
    /** How many answers have taken how long. A value. */
    struct Latencies {
        std::array<std::uint64_t, 12> counts{};  // up to each bound, and above all of them
        double sum = 0;

        void add(double seconds);
    };

    void addLatencies(std::string& text) const;

    std::mutex mutex_;
    std::map<std::string, Latencies> latencies_;  // by processes; guarded by mutex_
};
