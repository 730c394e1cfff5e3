#pragma once

#include <functional>
#include <map>
#include <set>
#include <vector>

#include "handler_threads/RunPermission.h"
#include "ipprmi/TipprmiSequence.h"
#include "reflect/TreflectORB.h"
#include "reflect/notices/MetaData.h"
#include "reflect/notices/NoticeKind.h"
#include "reflect/notices/Subscriptions.h"
#include "reflect/notices/UnknownClasses.h"

/**
 * What a broker knows of classes: a record of each, with a side for creations and one for
 * deletions. Tells the observers of this process, subscribes for them at other brokers, and
 * publishes the objects of this process to the brokers that subscribed here. A part of the broker.
 *
 * All of it under the run permission, which is given up while observers are told and while other
 * brokers are waited for. A record is made when objects of the class are first announced or
 * observed here, at any time, and never goes.
 */
class ClassRecords {
public:
    using MetaData = TreflectORB::MetaData;
    using Objects = std::vector<TreflectObject>;

    /** How much the records of all classes hold together. */
    struct Totals {
        unsigned long records;
        int creationObservers, deletionObservers, objects;
        int remoteCreationObservers, remoteDeletionObservers;
    };

    /** Who observes the objects of a class, of one kind. */
    struct Observers {
        unsigned int classId;
        NoticeKind kind;
        std::size_t own;                   // observers of this process
        std::vector<TreflectOrbId> other;  // brokers that subscribed
    };

    /** Of a broker that outlives this. */
    explicit ClassRecords(TreflectORB& orb) : orb_(orb), subscriptions_(orb, *this) {}
    ClassRecords(ClassRecords const&) = delete;
    ClassRecords& operator=(ClassRecords const&) = delete;

    Totals totals() const OSW_REQUIRES_PERMISSION;
    std::vector<Observers> observers() const OSW_REQUIRES_PERMISSION;
    Subscriptions& subscriptions() { return subscriptions_; }
    Subscriptions const& subscriptions() const { return subscriptions_; }

    // ---- Observers of this process ----

    /** See TreflectORB::observeCreations and observeDeletions. */
    bool observe(NoticeKind kind, unsigned int classId, TreflectObserver& observer,
                 bool plusExisting);
    /** See TreflectORB::removeObserver. */
    void removeObserver(unsigned int classId, TreflectObserver& observer);
    /** See TreflectORB::endCreations and endDeletions. */
    void endObserving(NoticeKind kind, unsigned int classId, TreflectObserver& observer);
    bool isAnyObserved() const OSW_REQUIRES_PERMISSION;
    /** Tells the observers of the class, each once, that an object is there or has gone. */
    void got(NoticeKind kind, unsigned int classId, TreflectObject const& object);
    /** The same for a creation at another broker. `since`: how many subscriptions to deletions
     * there had been when its notice arrived. `answer` answers the notice, once the observers have
     * been told: only then does its sender say whether the object is still there. */
    void gotElsewhere(unsigned int classId, TreflectObject const& object,
                      Transport::TerminationId const& sender, unsigned int since,
                      std::function<void()> const& answer) OSW_REQUIRES_PERMISSION;
    /** See TreflectORB::registerForOCN and registerForODN. */
    void subscribe(NoticeKind kind, unsigned int classId, Objects* existing,
                   TreflectOrbId const* only) OSW_REQUIRES_PERMISSION;
    static void tellOne(TreflectObserver& observer, TreflectObject const& object);
    void tellCreation(MetaData& record, TreflectObserver& observer,
                      TreflectObject const& object) OSW_REQUIRES_PERMISSION;

    // ---- Objects of this process ----

    /** See TreflectORB::notifyCreation and notifyDeletion. */
    void publishCreation(unsigned int classId,
                         TreflectServerObject const& object) OSW_REQUIRES_PERMISSION;
    void publishDeletion(unsigned int classId,
                         TreflectServerObject const& object) OSW_REQUIRES_PERMISSION;
    /** A broker subscribed to notices of one kind. `existing`, if given, becomes the objects that
     * exist here. One that has subscribed to very many classes that nobody here knows is told of no
     * more of them. */
    void addSubscriber(NoticeKind kind, unsigned int classId, TreflectOrbId const& broker,
                       TipprmiSequence<TreflectObject, 0u>* existing) OSW_REQUIRES_PERMISSION;
    /** It cancelled, which ends both kinds. */
    void removeSubscriber(unsigned int classId,
                          TreflectOrbId const& broker) OSW_REQUIRES_PERMISSION;

    // ---- Other brokers ----

    /** See TreflectORB::orbAppeared. */
    void appeared(TreflectOrbId const& broker);
    /** Subscribes one observer at a broker that it has missed; false when it has been removed
     * meanwhile. */
    bool catchUp(NoticeKind kind, unsigned int classId, TreflectObserver& observer,
                 bool plusExisting, TreflectOrbId const& broker) OSW_REQUIRES_PERMISSION;
    /** A broker has gone. */
    void forget(Transport::TerminationId const& gone) OSW_REQUIRES_PERMISSION;

    // ---- Ends ----

    /** A server object, or an observer, is being destroyed: it leaves the records of all brokers of
     * this process, and nobody is told. */
    static void forgetEverywhere(TreflectServerObject const& object) OSW_REQUIRES_PERMISSION;
    static void forgetEverywhere(TreflectObserver const& observer) OSW_REQUIRES_PERMISSION;
    /** The broker is being deleted: nobody observes any more. */
    void close() OSW_REQUIRES_PERMISSION;

private:
    /** The record of a class, made when first asked for. */
    MetaData& getMetaData(unsigned int classId) OSW_REQUIRES_PERMISSION;
    void tellAll(NoticeKind kind, MetaData& record, TreflectObject const& object,
                 std::set<TreflectObserver const*> told) OSW_REQUIRES_PERMISSION;
    bool isNewcomer(TreflectOrbId const& broker) const OSW_REQUIRES_PERMISSION;
    static void tellExisting(MetaData& record, Registration& registration) OSW_REQUIRES_PERMISSION;
    void cancelUnlessObserved(NoticeKind kind, MetaData& record) OSW_REQUIRES_PERMISSION;
    void cancel(NoticeKind kind, MetaData& record) OSW_REQUIRES_PERMISSION;
    void catchUpClass(MetaData& record, TreflectOrbId const& broker) OSW_REQUIRES_PERMISSION;
    void tellOfMissedDeletions(MetaData& record,
                               Registration const& telling) OSW_REQUIRES_PERMISSION;
    void tellOfGone(MetaData& record, TreflectOrbId const& broker,
                    Registration const& telling) OSW_REQUIRES_PERMISSION;
    void publish(NoticeKind kind, MetaData& record, TreflectObject const& object,
                 Publication& publication) OSW_REQUIRES_PERMISSION;
    void addToUnknown(NoticeKind kind, unsigned int classId,
                      TreflectOrbId const& broker) OSW_REQUIRES_PERMISSION;
    static void listExisting(MetaData const& record, TreflectOrbId const& broker,
                             TipprmiSequence<TreflectObject, 0u>& existing) OSW_REQUIRES_PERMISSION;
    /** The records of all brokers of this process. */
    template <class Forget>
    static void forEachRecord(Forget const& forget) OSW_REQUIRES_PERMISSION;

    TreflectORB& orb_;
    Subscriptions subscriptions_;
    std::map<unsigned int, MetaData> records_ OSW_GUARDED_BY_PERMISSION;  // by class id
    UnknownClasses unknown_ OSW_GUARDED_BY_PERMISSION;
    /** The brokers whose arrival is over: what is observed here is observed there, and what they
     * had has been told. */
    std::set<TreflectOrbId> caughtUpWith_ OSW_GUARDED_BY_PERMISSION;
};
