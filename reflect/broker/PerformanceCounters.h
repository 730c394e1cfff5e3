#pragma once

#include <algorithm>
#include <iterator>
#include <map>

#include "ipprmi/TipprmiSequence.h"
#include "reflect/TreflectORB.h"
#include "transport/TerminationId.h"
#include "transport/TransportLayer.h"

/** What a broker has sent to one destination. */
struct TreflectORB::InternalPerfCnts {
    unsigned int sent = 0;    // requests forwarded
    unsigned int failed = 0;  // those of them that did not complete successfully
};

/** A broker's counters by destination, since they were last taken. Those of destinations that have
 * gone stay, unless there are thousands: whoever comes and goes again and again leaves some each
 * time. Guarded by the run permission. */
class PerformanceCounters {
public:
    using Counters = TreflectORB::InternalPerfCnts;
    using Records = TipprmiSequence<TreflectORB::PerfCnts, 0u>;

    /** The counters of a destination, made on first use. Threads mostly call the same one again,
     * so the last answer is kept at hand. Good until the next use. */
    Counters& of(Transport::TerminationId target) {
        if (!last_ || lastTarget_ != target) {
            last_ = &find(target);
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

    static constexpr std::size_t kMany = 4096;

private:
    Counters& find(Transport::TerminationId target) {
        auto const found = counters_.find(target);
        if (found != counters_.end())
            return found->second;
        if (counters_.size() >= many_)
            forgetThoseGone();
        return counters_[target];
    }
    /** Each that stays costs one look for each that comes. */
    void forgetThoseGone() {
        last_ = nullptr;
        auto const& transport = Transport::TransportLayer::instance();
        for (auto entry = counters_.begin(); entry != counters_.end();)
            entry = transport.exists(entry->first) ? std::next(entry) : counters_.erase(entry);
        many_ = std::max(kMany, 2 * counters_.size());
    }

    std::map<Transport::TerminationId, Counters> counters_;
    std::size_t many_ =
        kMany;  // so many, before those of destinations that have gone are forgotten
    Transport::TerminationId lastTarget_;
    Counters* last_ = nullptr;  // counters of lastTarget_, inside the map
};
