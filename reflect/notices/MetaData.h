#pragma once

#include <map>
#include <set>

#include "handler_threads/TreflectMutex.h"
#include "reflect/TreflectORB.h"
#include "reflect/notices/ObjectPlace.h"
#include "reflect/notices/Publication.h"
#include "reflect/notices/Registration.h"

/** What a broker knows of a class: who wants to hear of its objects, and which there are. Guarded
 * by the run permission. */
struct TreflectORB::MetaData {
    /** The notices of one kind. */
    struct Side {
        // In the order of registration, with duplicates. Not owned.
        Observers observers;
        Registration::UnderWay registrations;
        Notice::UnderWay notices;
        /** The brokers that subscribed here. */
        std::set<TreflectOrbId> subscribers;
        Publication::UnderWay publications;

        /** Whether anybody is listed or on the way into the list. */
        bool isObserved() const;
        /** The first listed observer that has not been told; null when there is none. */
        TreflectObserver* nextFor(Notice const& notice) const;
        /** The observer is told of the object's creation, and by none of the notices under way as
         * well; false when one of them has told it. */
        bool begin(ObjectPlace const& place, TreflectObserver const& observer);
        /** The observer leaves the list, or does not get into it. */
        void forget(TreflectObserver const& observer);
    };
    /** An object of a newcomer, and who has been told of it. */
    struct Told {
        TreflectObject object;
        std::set<TreflectObserver const*> observers;
    };

    Side creations;
    Side deletions;
    /** The objects of this process that have been announced. Not owned. */
    std::set<TreflectServerObject const*> objects;
    /** Who has been told of which objects of brokers that have come up and are not caught up with:
     * the others are told when they are. */
    std::map<ObjectPlace, Told> newcomersObjects;
    /** Held while the group is told of a subscription or its end, so that the one does not overtake
     * the other. Taken with the run permission, which is given up to wait for it. */
    TreflectMutex subscribing;
    /** The number of the latest subscription to deletions of the class at other brokers, among
     * those of all classes (`Parts::deletionSubscriptions`); 0 when there was none. */
    unsigned int lastDeletionSubscription = 0;

    Side& side(Kind kind) { return kind == Kind::creation ? creations : deletions; }
    /** An object is no more: nobody is told any longer that it was created. */
    void gone(ObjectPlace const& place);
    /** Who has been told that a newcomer's object exists. */
    std::set<TreflectObserver const*> toldOf(ObjectPlace const& place) const;
    /** An observer is told of an object of another broker. */
    void heardOf(ObjectPlace const& place, TreflectObject const& object);
    /** An observer has been removed. */
    void forget(TreflectObserver const& observer);
    /** An observer is being destroyed: there may soon be another at its address. */
    void forgetDestroyed(TreflectObserver const& observer);
    void forget(TreflectOrbId const& broker);
    /** An object of this process is being destroyed. */
    void forget(TreflectServerObject const& object);
};
