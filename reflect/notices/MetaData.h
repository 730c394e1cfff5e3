#pragma once

#include <map>
#include <set>
#include <vector>

#include "handler_threads/RunPermission.h"
#include "handler_threads/TreflectMutex.h"
#include "reflect/TreflectORB.h"
#include "reflect/notices/Notice.h"
#include "reflect/notices/NoticeKind.h"
#include "reflect/notices/ObjectPlace.h"
#include "reflect/notices/Publication.h"
#include "reflect/notices/Registration.h"

/** What a broker knows of a class: who wants to hear of its objects, and which there are. */
struct TreflectORB::MetaData {
    /** The notices of one kind. */
    struct Side {
        // In the order of registration, with duplicates. Not owned.
        std::vector<TreflectObserver*> observers OSW_GUARDED_BY_PERMISSION;
        UnderWay<Registration> registrations OSW_GUARDED_BY_PERMISSION;
        UnderWay<Notice> notices OSW_GUARDED_BY_PERMISSION;
        /** The brokers that subscribed here. */
        Publication::Subscribers subscribers OSW_GUARDED_BY_PERMISSION;
        UnderWay<Publication> publications OSW_GUARDED_BY_PERMISSION;

        /** Whether anybody is listed or on the way into the list. */
        bool isObserved() const OSW_REQUIRES_PERMISSION;
        /** The first listed observer that has not been told; null when there is none. */
        TreflectObserver* nextFor(Notice const& notice) const OSW_REQUIRES_PERMISSION;
        /** The observer is told of the object's creation, and by none of the notices under way as
         * well; false when one of them has told it. */
        bool begin(ObjectPlace const& place,
                   TreflectObserver const& observer) OSW_REQUIRES_PERMISSION;
        /** The observer leaves the list, or does not get into it; false when it was neither in it
         * nor on its way. */
        bool forget(TreflectObserver const& observer) OSW_REQUIRES_PERMISSION;
        /** The broker is being deleted. */
        void forgetObservers() OSW_REQUIRES_PERMISSION;
    };
    /** An object of a newcomer, and who has been told of it. */
    struct Told {
        TreflectObject object;
        std::set<TreflectObserver const*> observers;
    };

    explicit MetaData(unsigned int id) : classId(id) {}

    unsigned int const classId;
    Side creations;
    Side deletions;
    /** The objects of this process that have been announced. Not owned. */
    std::set<TreflectServerObject const*> objects OSW_GUARDED_BY_PERMISSION;
    /** Who has been told of which objects of brokers that have come up and are not caught up with:
     * the others are told when they are. */
    std::map<ObjectPlace, Told> newcomersObjects OSW_GUARDED_BY_PERMISSION;
    /** Held while the group is told of a subscription or its end, so that the one does not overtake
     * the other. Taken with the run permission, which is given up to wait for it. */
    TreflectMutex subscribing;
    /** The number of the latest subscription to deletions of the class at other brokers, among
     * those of all classes (`Subscriptions::deletions`); 0 when there was none. */
    unsigned int lastDeletionSubscription OSW_GUARDED_BY_PERMISSION = 0;
    /** Whether creations have been subscribed to at other brokers and not cancelled since, as when
     * their last observer has been destroyed without being removed. */
    bool creationsSubscribed OSW_GUARDED_BY_PERMISSION = false;

    Side& side(NoticeKind kind) { return kind == NoticeKind::Creation ? creations : deletions; }
    Side const& side(NoticeKind kind) const {
        return kind == NoticeKind::Creation ? creations : deletions;
    }
    bool isObserved() const OSW_REQUIRES_PERMISSION {
        return creations.isObserved() || deletions.isObserved();
    }
    /** Whether the end of an object is being published. */
    bool isEnding(TreflectServerObject const* object) const OSW_REQUIRES_PERMISSION;
    /** Whether an object does not exist for a broker: it is still to be told of its creation, or
     * has been told of its end. */
    bool isHiddenFrom(TreflectOrbId const& broker,
                      TreflectServerObject const* object) const OSW_REQUIRES_PERMISSION;
    /** An object is about to go: nobody else is told that it was created. */
    void endCreation(TreflectServerObject const& object) OSW_REQUIRES_PERMISSION;
    /** A broker subscribed to creations without asking what exists. */
    void subscribed(TreflectOrbId const& broker) OSW_REQUIRES_PERMISSION;
    /** It cancelled one kind of notices, which ends both. */
    void cancelled(TreflectOrbId const& broker) OSW_REQUIRES_PERMISSION;
    /** There is an object at this place, perhaps after another one. */
    void present(ObjectPlace const& place) OSW_REQUIRES_PERMISSION;
    /** An object is no more: nobody is told any longer that it was created. */
    void gone(ObjectPlace const& place) OSW_REQUIRES_PERMISSION;
    /** Who has been told that a newcomer's object exists. */
    std::set<TreflectObserver const*> toldOf(ObjectPlace const& place) const
        OSW_REQUIRES_PERMISSION;
    /** An observer is told of an object of another broker. */
    void heardOf(ObjectPlace const& place, TreflectObject const& object) OSW_REQUIRES_PERMISSION;
    /** The class's subscriptions are cancelled: what has been heard of may be told anew. */
    void forgetHeard() OSW_REQUIRES_PERMISSION;
    /** An observer has been removed. */
    void forget(TreflectObserver const& observer) OSW_REQUIRES_PERMISSION;
    /** An observer is being destroyed: there may soon be another at its address. */
    void forgetDestroyed(TreflectObserver const& observer) OSW_REQUIRES_PERMISSION;
    void forget(TreflectOrbId const& broker) OSW_REQUIRES_PERMISSION;
    /** An object of this process is being destroyed. */
    void forget(TreflectServerObject const& object) OSW_REQUIRES_PERMISSION;
    /** The broker is being deleted. */
    void forgetAll() OSW_REQUIRES_PERMISSION;
};
