#pragma once

#include <map>

#include "oswrap/Mutex.h"
#include "reflect/broker/PerformanceCounters.h"

/**
 * One-way calls that have come back, until somebody who holds the run permission, which the
 * receiving thread never waits for, enters them into the counters. Any thread.
 */
class ReturnedCalls {
public:
    /** Counts a call to `target`. Who comes back with ever new targets is not counted beyond a
     * bound. */
    void add(Transport::TerminationId target);
    /** Enters what has been counted as failed. With the run permission. */
    void moveTo(PerformanceCounters& counters);

private:
    static constexpr std::size_t kMostTargets = 4096;

    OSWrap::Mutex mutex_;  // a leaf lock
    std::map<Transport::TerminationId, unsigned int> calls_ OSW_GUARDED_BY(mutex_);
};
