#pragma once

#include <list>
#include <set>
#include <vector>

#include "handler_threads/RunPermission.h"
#include "oswrap/Mutex.h"
#include "reflect/TreflectORB.h"

class ClassRecords;

/**
 * The brokers that came up after a subscription went to the whole group: an observer that comes
 * later is subscribed at them one by one. Any thread.
 */
class TreflectMissedOrbs {
public:
    /** For subscriptions of `orb` to creations, or else to deletions. `records` are those of `orb`;
     * both outlive this. */
    TreflectMissedOrbs(TreflectORB& orb, ClassRecords& records, bool forCreations)
        : orb_(orb), records_(records), forCreations_(forCreations) {}

    /** A subscription goes to these members: nobody is missed any more. */
    void start(std::list<Transport::TerminationId>& members);
    /** A broker came up. */
    void add(TreflectOrbId const& id);
    /** A broker has gone: one that comes back in its place has to be subscribed at again. */
    void forget(TreflectOrbId const& id);
    bool empty();
    /** Subscribes `observer` at each of the missed, which stay on the list, and tells it of the
     * objects that exist there. With the run permission, given up while a broker is waited for. */
    void notify(unsigned int classId, TreflectObserver& observer,
                bool plusExisting) OSW_REQUIRES_PERMISSION;

private:
    TreflectORB& orb_;
    ClassRecords& records_;
    bool const forCreations_;
    OSWrap::Mutex mutex_;  // a leaf
    std::vector<TreflectOrbId> missed_ OSW_GUARDED_BY(mutex_);
    std::set<TreflectOrbId> addressed_ OSW_GUARDED_BY(mutex_);
};
