#pragma once

#include <cstddef>
#include <map>
#include <set>

#include "handler_threads/RunPermission.h"
#include "transport/TerminationId.h"

/**
 * The newcomers that are to be caught up with. Each one that does not answer keeps a worker and a
 * transaction id, so not all of them are asked at once: of one process as many at most as there are
 * places left for all. The others wait until one of them has answered or gone. So a process whose
 * terminations are many and mute keeps half of the places, and others find some.
 */
class Arrivals {
public:
    using Id = Transport::TerminationId;

    /** Those that are caught up with at the same time. */
    static constexpr std::size_t kMost = 128;

    /** A newcomer of that process. True when it is to be caught up with now; else it waits. */
    bool begin(Id newcomer, int process) OSW_REQUIRES_PERMISSION;
    /** It has been caught up with. */
    void end(Id newcomer) OSW_REQUIRES_PERMISSION;
    /** One that has waited and is to be caught up with now, or none (0). */
    Id next() OSW_REQUIRES_PERMISSION;
    /** It has gone; true when it has waited in vain. */
    bool forget(Id gone) OSW_REQUIRES_PERMISSION;

private:
    using Counts = std::map<int, std::size_t>;  // by process
    using Lines = std::map<int, std::set<Id>>;

    bool mayBegin(int process) const OSW_REQUIRES_PERMISSION;
    void enter(Id newcomer, int process) OSW_REQUIRES_PERMISSION;

    std::map<Id, int> underWay_ OSW_GUARDED_BY_PERMISSION;
    Counts counts_ OSW_GUARDED_BY_PERMISSION;  // of those under way
    std::map<Id, int> waiting_ OSW_GUARDED_BY_PERMISSION;
    Lines lines_ OSW_GUARDED_BY_PERMISSION;  // the same, none of them empty
};
