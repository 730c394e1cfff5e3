#pragma once

#include <set>

#include "handler_threads/TreflectMutex.h"
#include "reflect/Registration.h"
#include "reflect/TreflectORB.h"

/** What a broker knows of a class: who wants to hear of its objects, and which there are. Guarded
 * by the run permission. */
struct TreflectORB::MetaData {
    // In the order of registration, with duplicates. Not owned.
    Observers creationObservers;
    Observers deletionObservers;
    Registration::UnderWay creationRegistrations;
    Registration::UnderWay deletionRegistrations;
    /** The objects of this process that have been announced. Not owned. */
    std::set<TreflectServerObject const*> objects;
    /** The brokers that subscribed here. */
    std::set<TreflectOrbId> remoteCreationObservers;
    std::set<TreflectOrbId> remoteDeletionObservers;
    /** The brokers at which this process has subscribed, or is about to. */
    std::set<TreflectOrbId> creationsAt;
    std::set<TreflectOrbId> deletionsAt;
    /** Held while the group is told of a subscription or its end, so that the one does not overtake
     * the other. Taken with the run permission, which is given up to wait for it. */
    TreflectMutex subscribing;
};
