#pragma once

#include <map>

#include "ipprmi/TipprmiSequence.h"
#include "reflect/TreflectORB.h"
#include "transport/TerminationId.h"

/** What a broker has sent to one destination. */
struct TreflectORB::InternalPerfCnts {
    unsigned int sent = 0;    // requests forwarded
    unsigned int failed = 0;  // those of them that did not complete successfully
};

/** A broker's counters by destination, since they were last taken. Guarded by the run permission.
 */
class PerformanceCounters {
public:
    using Counters = TreflectORB::InternalPerfCnts;
    using Records = TipprmiSequence<TreflectORB::PerfCnts, 0u>;

    /** The counters of a destination, made on first use. Threads mostly call the same one again,
     * so the last answer is kept at hand. Good until the next `take`. */
    Counters& of(Transport::TerminationId target) {
        if (!last_ || lastTarget_ != target) {
            last_ = &counters_[target];
            lastTarget_ = target;
        }
        return *last_;
    }
    /** A call that fails before it is sent counts like any other. */
    void addUnsent(Transport::TerminationId target) {
        Counters& counters = of(target);
        ++counters.sent;
        ++counters.failed;
    }
    /** All of them, in the order of their destinations. */
    Records all() const {
        Records records;
        for (auto const& [target, counters] : counters_)
            records.push_back({target, counters.sent, counters.failed});
        return records;
    }
    /** All of them; what is counted from now on starts afresh. */
    Records take() {
        Records const records = all();
        counters_.clear();
        last_ = nullptr;
        return records;
    }

private:
    std::map<Transport::TerminationId, Counters> counters_;
    Transport::TerminationId lastTarget_;
    Counters* last_ = nullptr;  // counters of lastTarget_, inside the map
};
