#pragma once

#include <atomic>
#include <map>
#include <vector>

#include "handler_threads/RunPermission.h"
#include "reflect/TreflectORB.h"
#include "reflect/TreflectObject.h"
#include "reflect/notices/NoticeKind.h"
#include "reflect/notices/TreflectMissedOrbs.h"

class BrokerRequest;
class ClassRecords;
class Registration;

/**
 * A broker's subscriptions at the others of its group, for notices of the objects of a class. All
 * of it under the run permission, which is given up while a broker is waited for.
 */
class Subscriptions {
public:
    using MetaData = TreflectORB::MetaData;

    Subscriptions(TreflectORB& orb, ClassRecords& records)
        : orb_(orb), missedCreations_(orb, records, true), missedDeletions_(orb, records, false) {}

    /** Subscribes at all brokers of the group, but for those that are known not to have the class.
     * What exists there is added to `existing`, if given. `asking`, if given, is what asks. */
    void beginAtAll(NoticeKind kind, MetaData& record, std::vector<TreflectObject>* existing,
                    Registration* asking) OSW_REQUIRES_PERMISSION;
    /** The same at one of them. False when the broker was not asked, or did not answer. Whoever
     * looks whether the class is observed and then calls this subscribes ahead of a cancellation
     * that follows. */
    bool begin(NoticeKind kind, MetaData& record, std::vector<TreflectObject>* existing,
               Registration* asking,
               Transport::TerminationId const& target) OSW_REQUIRES_PERMISSION;
    /** Cancels at all brokers of the group. Needs no permission. */
    void cancelAtAll(NoticeKind kind, unsigned int classId) const;

    /** Deletions of the class have been subscribed to at other brokers. */
    void countDeletions(MetaData& record) OSW_REQUIRES_PERMISSION;
    /** How often that was. Any thread. */
    unsigned int deletions() const { return deletions_.load(std::memory_order_relaxed); }

    /** The brokers that the last subscription to the whole group did not reach. */
    TreflectMissedOrbs& missed(NoticeKind kind) {
        return kind == NoticeKind::Creation ? missedCreations_ : missedDeletions_;
    }
    /** A broker came up. */
    void add(TreflectOrbId const& broker);
    /** It has gone. */
    void forget(Transport::TerminationId const& gone) OSW_REQUIRES_PERMISSION;
    /** This broker is being deleted. */
    void close() OSW_REQUIRES_PERMISSION { knownOrbClasses_.clear(); }

private:
    bool mayServe(Transport::TerminationId const& target,
                  unsigned int classId) const OSW_REQUIRES_PERMISSION;
    void learnClasses(Transport::TerminationId const& target,
                      TipprmiStream& response) OSW_REQUIRES_PERMISSION;

    TreflectORB& orb_;
    TreflectMissedOrbs missedCreations_;
    TreflectMissedOrbs missedDeletions_;
    /** The classes that other brokers have said they know, in ascending order. */
    std::map<Transport::TerminationId, std::vector<unsigned int>> knownOrbClasses_
        OSW_GUARDED_BY_PERMISSION;
    /** Counted under the run permission when the brokers have answered, read by the receiving
     * thread before it delivers their answers. */
    std::atomic<unsigned int> deletions_{0};
};
