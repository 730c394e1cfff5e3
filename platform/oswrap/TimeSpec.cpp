#include "oswrap/TimeSpec.h"

#include <algorithm>
#include <limits>

#include "oswrap/Clock.h"

namespace OSWrap {

TimeSpec const TimeSpec::INFINITETIME = TimeSpec::infinite();

long long TimeSpec::totalNanoseconds() const {
    constexpr long long kMostSeconds =
        std::numeric_limits<long long>::max() / kNanosecondsPerSecond - 1;
    if (seconds_ > kMostSeconds)
        return std::numeric_limits<long long>::max();
    if (seconds_ < -kMostSeconds)
        return std::numeric_limits<long long>::min();
    return seconds_ * kNanosecondsPerSecond + nanoseconds_;
}

timespec TimeSpec::toTimespec() const {
    constexpr long long kMost = std::numeric_limits<time_t>::max();
    constexpr long long kLeast = std::numeric_limits<time_t>::min();
    timespec result{};
    result.tv_sec = static_cast<time_t>(std::clamp(seconds_, kLeast, kMost));
    result.tv_nsec = static_cast<long>(nanoseconds_);
    return result;
}

TimeSpec Clock::getObsTime() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return {now.tv_sec, now.tv_nsec};
}

long long Clock::nowNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
}

}  // namespace OSWrap
