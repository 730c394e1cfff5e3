#pragma once

#include <time.h>

#include "oswrap/Export.h"

namespace OSWrap {

/**
 * A length of time or a clock reading: whole seconds and nanoseconds (0 to 999,999,999).
 * A value; all arithmetic keeps the nanoseconds in range. Differences may be negative: then the
 * seconds are negative and the nanoseconds still positive. INFINITETIME stays what it is whatever
 * finite value is added or taken away; other values stand for at most 2^62 seconds.
 */
class REFLECTORB_API TimeSpec {
public:
    /** Waits without limit when given as a timeout; compares greater than every other value. */
    static TimeSpec const INFINITETIME;

    constexpr TimeSpec() = default;
    /** `nanoseconds` may be any value; it is carried into the seconds. */
    constexpr TimeSpec(long long seconds, long long nanoseconds)
        : seconds_(seconds + floorDivide(nanoseconds)),
          nanoseconds_(nanoseconds - floorDivide(nanoseconds) * kNanosecondsPerSecond) {}

    /** Whole seconds, rounded down. */
    constexpr long long seconds() const { return seconds_; }
    /** What is beyond them, 0 to 999,999,999. */
    constexpr long long nanoseconds() const { return nanoseconds_; }
    /** The whole value in nanoseconds, kept within the range of the type. */
    long long totalNanoseconds() const;
    /** Whether it is INFINITETIME. */
    constexpr bool isInfinite() const { return seconds_ == kInfiniteSeconds; }
    /** For calls of the operating system; kept within the range of its time_t. */
    timespec toTimespec() const;

    friend constexpr TimeSpec operator+(TimeSpec const& a, TimeSpec const& b) {
        if (a.isInfinite() || b.isInfinite())
            return infinite();
        return {a.seconds_ + b.seconds_, a.nanoseconds_ + b.nanoseconds_};
    }
    /** `b` is finite. */
    friend constexpr TimeSpec operator-(TimeSpec const& a, TimeSpec const& b) {
        if (a.isInfinite())
            return a;
        return {a.seconds_ - b.seconds_, a.nanoseconds_ - b.nanoseconds_};
    }
    /** As the operators that they are made of. */
    TimeSpec& operator+=(TimeSpec const& other) { return *this = *this + other; }
    TimeSpec& operator-=(TimeSpec const& other) { return *this = *this - other; }
    /** Order by length, INFINITETIME last. */
    friend constexpr bool operator==(TimeSpec const& a, TimeSpec const& b) {
        return a.seconds_ == b.seconds_ && a.nanoseconds_ == b.nanoseconds_;
    }
    friend constexpr bool operator!=(TimeSpec const& a, TimeSpec const& b) { return !(a == b); }
    friend constexpr bool operator<(TimeSpec const& a, TimeSpec const& b) {
        return a.seconds_ != b.seconds_ ? a.seconds_ < b.seconds_ : a.nanoseconds_ < b.nanoseconds_;
    }
    friend constexpr bool operator>(TimeSpec const& a, TimeSpec const& b) { return b < a; }
    friend constexpr bool operator<=(TimeSpec const& a, TimeSpec const& b) { return !(b < a); }
    friend constexpr bool operator>=(TimeSpec const& a, TimeSpec const& b) { return !(a < b); }

private:
    static constexpr long long kNanosecondsPerSecond = 1'000'000'000;
    static constexpr long long kInfiniteSeconds = 0x7FFF'FFFF'FFFF'FFFF;
    static constexpr long long floorDivide(long long n) {
        return n / kNanosecondsPerSecond - (n % kNanosecondsPerSecond < 0 ? 1 : 0);
    }
    static constexpr TimeSpec infinite() { return {kInfiniteSeconds, kNanosecondsPerSecond - 1}; }

    long long seconds_ = 0;
    long long nanoseconds_ = 0;
};

}  // namespace OSWrap
