#pragma once

#include <list>
#include <string>

#include "transport/Termination.h"

namespace Transport {

/** A group of terminations by its number. A value. */
class REFLECTORB_API Group {
public:
    /** A handle on a group, whether it has members or not. */
    explicit Group(GroupId id) : id_(id) {}
    /** Ids of the members known now, own ones included, in ascending order. */
    std::list<TerminationId> contains() const;

private:
    GroupId id_;
};

/** Whose a termination is, as its entry in the rendezvous folder tells. A value. */
struct Owner {
    int process = 0;    ///< its id; 0 for none
    std::string actor;  ///< its name, with "_" for all but letters, digits and "-", perhaps cut
};

/**
 * What the transport knows of all terminations. Answers from memory, without traffic. A process
 * knows of others from the start of its first termination until the stop of its last; when `start`
 * has returned, everybody who was there before is known. Any thread. In a forked child: nobody.
 */
class REFLECTORB_API TransportLayer {
public:
    /** The one of this process. */
    static TransportLayer& instance();

    /** A handle on a termination, whether it is there or not. */
    Termination getTermination(TerminationId id) const { return Termination(id); }
    /** Whether there is such a termination now. */
    bool exists(TerminationId id) const;
    /**
     * The same for one from which a message has just come back: it may be about to die. Looks for
     * itself, and waits at most a second until one that shows signs of its end has ended. Not on
     * the thread that calls `TerminationImpl::receive`.
     */
    bool stillExists(TerminationId id) const;
    /** Process 0 for one that is not there, or has not been seen yet. */
    Owner ownerOf(TerminationId id) const;
    /** A handle on a group, whether it has members or not. */
    Group getGroup(GroupId id) const { return Group(id); }
    /** All terminations of all groups, in ascending order. */
    std::list<TerminationId> getTerminations() const;
};

}  // namespace Transport
