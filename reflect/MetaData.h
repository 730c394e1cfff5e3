#pragma once

#include <list>
#include <set>
#include <tuple>
#include <vector>

#include "handler_threads/TreflectMutex.h"
#include "reflect/TreflectORB.h"
#include "reflect/TreflectObject.h"

/**
 * An observer on its way into the lists of a class, which takes as long as other brokers take to
 * answer. Notices that arrive meanwhile are kept for it; and it may be removed or destroyed by
 * another thread, or by its own callback. Guarded by the run permission.
 */
class TreflectORB::Registration {
public:
    /** Enters `underWay`, and leaves it at the end. */
    Registration(std::list<Registration*>& underWay, TreflectObserver& observer);
    ~Registration();
    Registration(Registration const&) = delete;
    Registration& operator=(Registration const&) = delete;

    bool isOf(TreflectObserver const& observer) const { return observer_ == &observer; }
    /** The observer has been removed or is being destroyed. */
    void end() { observer_ = nullptr; }
    bool ended() const { return !observer_; }
    /** Keeps a notice, as long as the observer is not in the lists. */
    void keep(TreflectObject const& object);
    /** Of something that is no more. */
    void dropKept(TreflectObject const& object);
    /** Tells the observer of an object that it has not been told of. */
    void tell(TreflectObject const& object);
    void stopKeeping() { keeping_ = false; }
    /** Puts the observer into the list and tells it what was kept for it. */
    void enter(std::vector<TreflectObserver*>& observers);

private:
    using Place = std::tuple<NamespaceId, unsigned int, unsigned int>;  // broker, internal id

    static Place placeOf(TreflectObject const& object);

    std::list<Registration*>& underWay_;
    TreflectObserver* observer_;
    bool keeping_ = true;
    std::set<Place> told_;
    std::list<TreflectObject> kept_;
};

/** What a broker knows of a class: who wants to hear of its objects, and which there are. Guarded
 * by the run permission. */
struct TreflectORB::MetaData {
    // In the order of registration, with duplicates. Not owned.
    Observers creationObservers;
    Observers deletionObservers;
    std::list<Registration*> creationRegistrations;
    std::list<Registration*> deletionRegistrations;
    /** The objects of this process that have been announced. Not owned. */
    std::set<TreflectServerObject const*> objects;
    /** The brokers that subscribed here. */
    std::set<TreflectOrbId> remoteCreationObservers;
    std::set<TreflectOrbId> remoteDeletionObservers;
    /** Held while the group is told of a subscription or its end, so that the one does not overtake
     * the other. Taken with the run permission, which is given up to wait for it. */
    TreflectMutex subscribing;
};
