#pragma once

#include <list>

#include "transport/Termination.h"

namespace Transport {

/** A group of terminations by its number. A value. */
class REFLECTORB_API Group {
public:
    explicit Group(GroupId id) : id_(id) {}
    /** Ids of the members known now, own ones included, in ascending order. */
    std::list<TerminationId> contains() const;

private:
    GroupId id_;
};

/** What the transport knows of all terminations. Answers from memory, without traffic. Any thread.
 */
class REFLECTORB_API TransportLayer {
public:
    static TransportLayer& instance();

    Termination getTermination(TerminationId id) const { return Termination(id); }
    bool exists(TerminationId id) const;
    Group getGroup(GroupId id) const { return Group(id); }
    /** All terminations of all groups, in ascending order. */
    std::list<TerminationId> getTerminations() const;
};

}  // namespace Transport
