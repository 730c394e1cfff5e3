#pragma once

#include "oswrap/TimeSpec.h"

namespace OSWrap {

/** The clock of waits and of their reports. */
class REFLECTORB_API Clock {
public:
    /** The monotonic clock (CLOCK_MONOTONIC): never set back, counted while the machine runs. */
    static TimeSpec getObsTime();
    /** The same clock as nanoseconds, for short measurements. */
    static long long nowNanoseconds();
};

}  // namespace OSWrap
