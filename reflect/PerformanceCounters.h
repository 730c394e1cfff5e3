#pragma once

#include <map>

#include "reflect/TreflectORB.h"
#include "transport/TerminationId.h"

/** What a broker has sent to one destination. */
struct TreflectORB::InternalPerfCnts {
    unsigned int sent = 0;    // requests forwarded
    unsigned int failed = 0;  // those of them that did not complete successfully
};

/** A broker's counters by destination. Guarded by the run permission. */
class PerformanceCounters {
public:
    using Counters = TreflectORB::InternalPerfCnts;

    /** The counters of a destination, made on first use. Threads mostly call the same one again,
     * so the last answer is kept at hand. */
    Counters& of(Transport::TerminationId target) {
        if (!last_ || lastTarget_ != target) {
            last_ = &counters_[target];
            lastTarget_ = target;
        }
        return *last_;
    }

private:
    std::map<Transport::TerminationId, Counters> counters_;
    Transport::TerminationId lastTarget_;
    Counters* last_ = nullptr;  // counters of lastTarget_, inside the map
};
