#pragma once

#include <chrono>

namespace bench {

/** Microseconds of the monotonic clock, which is one for all processes. */
inline double moment() {
    return std::chrono::duration<double, std::micro>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace bench
