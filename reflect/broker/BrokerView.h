#pragma once

#include <vector>

#include "handler_threads/RunPermission.h"
#include "reflect/TreflectORB.h"
#include "reflect/broker/OngoingRequest.h"
#include "reflect/broker/PerformanceCounters.h"
#include "reflect/notices/ClassRecords.h"

/** What others may see of the inside of a broker of this process, for diagnostics: looks, and
 * changes nothing that anybody could notice. A value, of use as long as the run permission is kept.
 */
class BrokerView {
public:
    /** The brokers that are there, in the order of their namespaces. */
    static std::vector<BrokerView> all();
    /** Whether this one is still. */
    static bool isThere(TreflectORB const& orb);

    TreflectORB& orb() const { return *orb_; }
    std::vector<TipprmiObjectSkeleton*> objects() const OSW_REQUIRES_PERMISSION;
    std::size_t objectCount() const OSW_REQUIRES_PERMISSION;
    /** What has been counted since somebody has last asked for it. Adds to it what the calls have
     * counted meanwhile, as who asks for it would. */
    PerformanceCounters::Records counters() const OSW_REQUIRES_PERMISSION;
    std::vector<OngoingRequest::Glimpse> requests() const;
    std::vector<ClassRecords::Observers> classObservers() const OSW_REQUIRES_PERMISSION;

private:
    explicit BrokerView(TreflectORB& orb) : orb_(&orb) {}

    TreflectORB* orb_;
};
