#pragma once

#include <set>

#include "oswrap/Lock.h"
#include "oswrap/Mutex.h"
#include "transport/TerminationId.h"

/** The terminations whose arrival a broker has heard of, until it hears of their departure. With
 * them it distinguishes one that has gone, which the transport does not know any more, from one
 * that it does not know yet. Any thread. */
class PresentOrbs {
public:
    void add(Transport::TerminationId id) {
        OSWrap::Lock<> const lock(mutex_);
        ids_.insert(id);
    }
    /** False when it was not there. */
    bool remove(Transport::TerminationId id) {
        OSWrap::Lock<> const lock(mutex_);
        return ids_.erase(id) != 0;
    }

private:
    OSWrap::Mutex mutex_;  // a leaf lock
    std::set<Transport::TerminationId> ids_ OSW_GUARDED_BY(mutex_);
};
