#pragma once

#include <sched.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace bench {

/** Whether a floor's threads poll before they sleep. */
enum class Waiting { kSleep, kPoll };

/** Polls with sched_yield, for at most 20 us, until `ready()` holds. */
template <class Ready>
bool pollBriefly(Waiting waiting, Ready&& ready) {
    using Clock = std::chrono::steady_clock;
    if (ready())
        return true;
    if (waiting == Waiting::kSleep)
        return false;
    auto const end = Clock::now() + std::chrono::microseconds(20);
    do {
        sched_yield();
        if (ready())
            return true;
    } while (Clock::now() < end);
    return false;
}

}  // namespace bench
